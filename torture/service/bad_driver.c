/* A driver that misbehaves on demand: the file that VOQ_BAD names says "COMMAND crash", "COMMAND hang" (until it says
 * something else; a file with .in behind its name tells that it does) or "COMMAND garbage". Otherwise it reads 0x5A,
 * and 0xA5 in the last byte. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "voq/plc_driver.h"

static int told(const char* command, const char* what)
{
    char wanted[32] = "", there[32] = "";
    FILE* orders = fopen(getenv("VOQ_BAD"), "r");
    if (orders == NULL || fgets(there, sizeof there, orders) == NULL) there[0] = '\0';
    if (orders != NULL) fclose(orders);
    snprintf(wanted, sizeof wanted, "%s %s", command, what);
    return strcmp(wanted, there) == 0;
}

static void hang(const char* command)
{
    char path[64];
    snprintf(path, sizeof path, "%s.in", getenv("VOQ_BAD"));
    FILE* sign = fopen(path, "w");
    if (sign != NULL) fclose(sign);
    while (told(command, "hang")) usleep(1000);
}

int32_t PlcDrvCmd(const char* command, void* target, void** args)
{
    static const int32_t Garbage[] = {1, -1, 77, INT32_MAX, INT32_MIN};
    static unsigned turn;
    if (told(command, "crash")) *(volatile int*)0 = 1;
    if (told(command, "hang")) hang(command);
    if (told(command, "garbage")) return Garbage[turn++ % 5];
    if (strcmp(command, "Init") == 0) *(void**)target = &turn;
    if (strcmp(command, "Loop") == 0) usleep(1000);
    if (strcmp(command, "RdOne") == 0) {
        const PlcRequest* request = args[0];
        memset(request->data, 0x5A, (size_t)request->length);
        ((unsigned char*)request->data)[request->length - 1] = 0xA5;
    }
    return PLC_DRV_OK;
}
