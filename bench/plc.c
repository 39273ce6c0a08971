/* A fast PLC for the benchmarks: holding registers of a Modbus TCP station, any number of connections, a settable
 * delay. plc PORT DELAY_MICROSECONDS COUNTERS [changing] Counts what it serves in the file COUNTERS: two 64-bit words,
 * requests and registers. With "changing" both bytes of a register differ each time it is read. Ends when it is killed.
 */
#include <errno.h>
#include <fcntl.h>
#include <modbus/modbus.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

enum { REGISTERS = 65535, BACKLOG = 64, FUNCTION_AT = 7, COUNT_AT = 10 };

static struct {
    atomic_ullong requests, registers;
} * counters;
static useconds_t delay_us;
static int changing;
static modbus_mapping_t* mapping;

static void fail(const char* what)
{
    perror(what);
    exit(2);
}

static void change(const uint8_t* query)
{
    const unsigned first = (unsigned)(query[FUNCTION_AT + 1] << 8 | query[FUNCTION_AT + 2]);
    const unsigned count = (unsigned)(query[COUNT_AT] << 8 | query[COUNT_AT + 1]);
    for (unsigned i = first; i < first + count && i < REGISTERS; i++) mapping->tab_registers[i] += 0x0101;
}

static void* serve(void* argument)
{
    modbus_t* connection = argument;
    uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
    int length;
    while ((length = modbus_receive(connection, query)) >= 0) {
        if (length == 0) continue;
        if (delay_us > 0) usleep(delay_us);
        if (changing) change(query);
        if (modbus_reply(connection, query, length, mapping) < 0) break;
        atomic_fetch_add(&counters->requests, 1);
        if (query[FUNCTION_AT] == MODBUS_FC_READ_HOLDING_REGISTERS)
            atomic_fetch_add(&counters->registers, (unsigned)(query[COUNT_AT] << 8 | query[COUNT_AT + 1]));
    }
    modbus_close(connection);
    modbus_free(connection);
    return NULL;
}

static void map_counters(const char* path)
{
    const int file = open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (file < 0 || ftruncate(file, sizeof *counters) != 0) fail(path);
    counters = mmap(NULL, sizeof *counters, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (counters == MAP_FAILED) fail("mmap");
    close(file);
}

int main(int argc, char** argv)
{
    if (argc != 4 && argc != 5) return 2;
    changing = argc == 5;
    delay_us = (useconds_t)atoi(argv[2]);
    map_counters(argv[3]);
    mapping = modbus_mapping_new(0, 0, REGISTERS, 0);
    modbus_t* listener = modbus_new_tcp("127.0.0.1", atoi(argv[1]));
    int socket = modbus_tcp_listen(listener, BACKLOG);
    if (mapping == NULL || socket < 0) fail("listen");
    for (int i = 0; i < REGISTERS; i++) mapping->tab_registers[i] = (uint16_t)i;
    for (;;) {
        const int accepted = accept(socket, NULL, NULL);
        modbus_t* connection = modbus_new_tcp("127.0.0.1", 0);
        pthread_t thread;
        if (accepted < 0 || connection == NULL) fail("accept");
        modbus_set_socket(connection, accepted);
        if (pthread_create(&thread, NULL, serve, connection) != 0) fail("thread");
        pthread_detach(thread);
    }
}
