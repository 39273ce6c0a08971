/* A program of the C library's interface, for what Python cannot show: run with sanitizers, in threads, in 32 bits.
 *
 *     exercise sizes                 the records' sizes, as a compiler sees them
 *     exercise threads DIR ROUNDS    four threads with ports of their own on one directory
 *     exercise cycles DIR ROUNDS     opens and closes a port; prints what the process has grown by */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <voq/client.h>

#define RANGES 20
static int rounds;
static const char* directory;

static void check(int code, const char* what, const voq_port* port)
{
    if (code >= 0) return;
    fprintf(stderr, "%s: %s\n", what, port == NULL ? voq_strerror(code) : voq_port_error(port));
    exit(1);
}

static voq_port* opened(void)
{
    struct voq_error error;
    voq_port* port;
    if (voq_port_open(directory, &port, &error) != VOQ_OK) {
        fprintf(stderr, "%s\n", error.text);
        exit(1);
    }
    check(voq_port_set(port, VOQ_BYTE_ORDER, 0), "byte order", port);
    return port;
}

static voq_range* described(voq_port* port, const char* type, unsigned addr, unsigned count)
{
    voq_range* range;
    const struct voq_fields fields = {
        .type = type, .station = 1, .area = 1, .addr = addr, .count = count, .priority = 1};
    check(voq_range_new_fields(port, &fields, sizeof fields, &range), "range", port);
    return range;
}

static void follow(voq_port* port, voq_range** ranges)
{
    struct voq_event event;
    struct voq_reading reading;
    int live = 0, i;
    while (live < RANGES) {
        check(voq_port_wait(port, 20000) - 1, "waiting for values", port);
        while (voq_port_next_event(port, &event) == 1) continue;
        for (live = i = 0; i < RANGES; ++i) {
            check(voq_range_reading(ranges[i], &reading), "reading", port);
            live += reading.live;
        }
    }
}

static void await_answer(voq_port* port, voq_request* request, const char* what)
{
    struct voq_event event;
    int answers = 0;
    while (answers < 1) {
        check(voq_port_wait(port, 20000) - 1, "waiting for an answer", port);
        while (voq_port_next_event(port, &event) == 1) answers += event.type == VOQ_ANSWERED;
    }
    check(voq_request_result(request), what, port);
}

/* A write with a read under way beside it that is given up; what is written is read behind its answer, since the
 * service may serve a read before a write that waits. */
static void ask(voq_port* port, voq_range* range, double number)
{
    voq_request *write, *read, *dropped;
    unsigned char image[8];
    double seen[2];
    const double values[2] = {number, 1};
    size_t length;
    check(voq_encode_doubles(range, values, 2, image, sizeof image), "encode", port);
    check(voq_begin_write(range, image, 4, 20000, &write), "begin write", port);
    check(voq_begin_read(range, 20000, &dropped), "begin read", port);
    voq_request_free(dropped);
    await_answer(port, write, "write");
    check(voq_begin_read(range, 20000, &read), "begin read", port);
    await_answer(port, read, "read");
    check(voq_decode_doubles(range, voq_request_data(read, &length), 4, seen, 2) - 2, "decode", port);
    if (seen[0] != number || seen[1] != 1 || length != 4) check(VOQ_DAMAGED, "what was written is not read", NULL);
    voq_request_free(write);
    voq_request_free(read);
    check(voq_change(described(port, "u16", (unsigned)number, 1), "toggle 3", NULL, 20000), "change", port);
}

static void* run(void* argument)
{
    const unsigned number = (unsigned)(size_t)argument;
    for (int round = 0; round < rounds; ++round) {
        voq_port* const port = opened();
        voq_range* ranges[RANGES];
        for (unsigned i = 0; i < RANGES; ++i) {
            ranges[i] = described(port, "u16", 100 * number + 2 * i, 2);
            check(voq_subscribe(ranges[i]), "subscribe", port);
        }
        follow(port, ranges);
        ask(port, ranges[0], 100 * number + 50 + round);
        voq_range_free(ranges[1]);
        voq_port_close(port);
    }
    return NULL;
}

static int threads(void)
{
    pthread_t thread[4];
    for (size_t i = 0; i < 4; ++i) {
        if (pthread_create(&thread[i], NULL, run, (void*)(i + 1)) != 0) return 1;
    }
    for (size_t i = 0; i < 4; ++i) pthread_join(thread[i], NULL);
    puts("done");
    return 0;
}

static long resident(void)
{
    long pages = 0, ignored;
    FILE* const file = fopen("/proc/self/statm", "r");
    if (file == NULL || fscanf(file, "%ld %ld", &ignored, &pages) != 2) exit(1);
    fclose(file);
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

static void cycle(void)
{
    voq_port* const port = opened();
    check(voq_subscribe(described(port, "u16", 100, 1)), "subscribe", port);
    check(voq_port_dispatch(port), "dispatch", port);
    voq_port_close(port);
}

static int cycles(void)
{
    int i, lowest, after;
    long before;
    for (i = 0; i < 30; ++i) cycle();
    before = resident();
    lowest = dup(0);
    for (i = 0; i < rounds; ++i) cycle();
    after = dup(0);
    printf("%ld kB, %d descriptors\n", resident() - before, after - lowest - 1);
    return 0;
}

int main(int argc, char** argv)
{
    if (argc == 2 && strcmp(argv[1], "sizes") == 0) {
        printf("%zu %zu %zu %zu %zu %zu %zu\n", sizeof(struct voq_error), sizeof(struct voq_event),
               sizeof(struct voq_reading), sizeof(struct voq_meaning), sizeof(struct voq_status),
               sizeof(struct voq_calls), sizeof(struct voq_statistics));
        return 0;
    }
    if (argc != 4) return 2;
    directory = argv[2];
    rounds = atoi(argv[3]);
    return strcmp(argv[1], "threads") == 0 ? threads() : cycles();
}
