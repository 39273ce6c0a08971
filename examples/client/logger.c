/* Writes the values of registers to CSV as they change: time, name, state, values.
 *
 *     logger DIRECTORY BYTE_ORDER RANGE...        logger /home/user/tcp_1 0x331 s1:a4:u16@0*4
 *
 * Runs through restarts of the service, until SIGINT or SIGTERM. cc logger.c $(pkg-config --cflags --libs voq-client)
 */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <voq/client.h>

static volatile sig_atomic_t ended;

static void end(int number)
{
    ended = number;
}

static void print_time(int64_t microseconds)
{
    const time_t seconds = (time_t)(microseconds / 1000000);
    struct tm parts;
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", gmtime_r(&seconds, &parts));
    printf("%s.%03dZ", text, (int)(microseconds / 1000 % 1000));
}

static void print_change(const voq_range* range)
{
    struct voq_reading reading;
    if (voq_range_reading(range, &reading) != VOQ_OK || !reading.live) return;
    const int length = voq_show(range, reading.data, reading.length, NULL, 0);
    char* const text = length < 0 ? NULL : malloc((size_t)length + 1);
    if (text == NULL) return;
    voq_show(range, reading.data, reading.length, text, (size_t)length + 1);
    print_time(reading.stamp_us);
    printf(",\"%s\",%d,%s\n", voq_range_name(range), (int)reading.state, text);
    free(text);
}

static int fail(const char* what, const char* why)
{
    fprintf(stderr, "logger: %s: %s\n", what, why);
    return 1;
}

static int follow(voq_port* port)
{
    struct voq_event event;
    while (!ended) {
        const int code = voq_port_wait(port, -1);
        if (code < 0 && code != VOQ_INTERRUPTED && code != VOQ_LOCKED) return fail("waiting", voq_port_error(port));
        while (voq_port_next_event(port, &event) == 1) {
            if (event.type == VOQ_CHANGED) print_change(event.range);
            if (event.type == VOQ_SERVICE_LOST) fprintf(stderr, "logger: the service has ended\n");
            if (event.type == VOQ_SERVICE_BACK) fprintf(stderr, "logger: the service is there\n");
        }
        if (fflush(stdout) != 0) return fail("output", "cannot be written");
    }
    return 0;
}

static int subscribe(voq_port* port, char** texts)
{
    for (; *texts != NULL; ++texts) {
        voq_range* range;
        if (voq_range_new(port, *texts, &range) != VOQ_OK || voq_subscribe(range) != VOQ_OK) {
            return fail(*texts, voq_port_error(port));
        }
    }
    return 0;
}

int main(int argc, char** argv)
{
    struct sigaction action;
    struct voq_error error;
    voq_port* port;
    if (argc < 4) return fail("usage", "logger DIRECTORY BYTE_ORDER RANGE...");
    memset(&action, 0, sizeof action);
    action.sa_handler = end;
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    if (voq_port_open(argv[1], &port, &error) != VOQ_OK) return fail(argv[1], error.text);
    int status = 1;
    if (voq_port_set(port, VOQ_BYTE_ORDER, strtol(argv[2], NULL, 0)) != VOQ_OK) {
        fail(argv[2], voq_port_error(port));
    } else if (subscribe(port, argv + 3) == 0) {
        status = follow(port);
    }
    voq_port_close(port);
    return status;
}
