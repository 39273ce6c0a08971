/* Level control: keeps a tank between two levels with a pump, inside a loop of its own.
 *
 *     level DIRECTORY BYTE_ORDER LEVEL PUMP LOW HIGH      level /home/user/tcp_1 0 s1:a4:u16@100 s1:a0:bit@5 200 800
 *
 * The pump is switched on below LOW and off above HIGH. A level that is not fresh switches it off: the example errs on
 * the safe side. Until SIGINT or SIGTERM, and then the pump is off. cc level.c $(pkg-config --cflags --libs voq-client)
 */
#define _POSIX_C_SOURCE 200809L
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <voq/client.h>

enum { TIMEOUT_MS = 5000 };

struct control {
    voq_port* port;
    voq_range *level, *pump;
    double low, high;
    unsigned char on;       /* what the pump should be */
    int known;              /* ... and is, as far as the last write was answered */
    voq_request* switching; /* under way, or NULL */
};

static volatile sig_atomic_t ended;

static void end(int number)
{
    ended = number;
}

static void decide(struct control* control)
{
    struct voq_reading reading;
    double level;
    const unsigned char before = control->on;
    if (voq_range_reading(control->level, &reading) != VOQ_OK || !reading.live ||
        voq_range_values(control->level, &level, 1) != 1) {
        control->on = 0;
    } else if (level < control->low) {
        control->on = 1;
    } else if (level > control->high) {
        control->on = 0;
    }
    if (control->on != before) {
        control->known = 0;
        printf("pump %s\n", control->on ? "on" : "off");
    }
}

/* One write at a time; one that failed is made again with the next event, with the value that is wanted then. */
static void act(struct control* control)
{
    if (control->known || control->switching != NULL) return;
    if (voq_begin_write(control->pump, &control->on, 1, TIMEOUT_MS, &control->switching) != VOQ_OK) {
        fprintf(stderr, "level: %s\n", voq_port_error(control->port));
    } else {
        control->known = 1;
    }
}

static void handle(struct control* control, const struct voq_event* event)
{
    if (event->type == VOQ_ANSWERED) {
        const int result = voq_request_result(event->request);
        if (result != VOQ_OK) {
            fprintf(stderr, "level: pump not switched: %s\n", voq_strerror(result));
            control->known = 0;
        }
        voq_request_free(event->request);
        control->switching = NULL;
    }
    if (event->type == VOQ_SERVICE_BACK) control->known = 0;
}

static int run(struct control* control)
{
    struct voq_event event;
    struct pollfd ready = {voq_port_fd(control->port), POLLIN, 0};
    if (voq_subscribe(control->level) != VOQ_OK) return 1;
    while (!ended) {
        const int code = voq_port_dispatch(control->port);
        if (code < 0 && code != VOQ_LOCKED) return 1;
        while (voq_port_next_event(control->port, &event) == 1) handle(control, &event);
        decide(control);
        if (voq_port_running(control->port)) act(control);
        fflush(stdout);
        /* Other descriptors of the program would stand beside this one. A failed write is tried again after a second.
         */
        poll(&ready, 1, control->known ? -1 : 1000);
    }
    control->on = 0;
    return voq_write(control->pump, &control->on, 1, TIMEOUT_MS) != VOQ_OK;
}

int main(int argc, char** argv)
{
    struct sigaction action;
    struct voq_error error;
    struct control control;
    int failed = 1;
    if (argc != 7) {
        fprintf(stderr, "usage: level DIRECTORY BYTE_ORDER LEVEL PUMP LOW HIGH\n");
        return 2;
    }
    memset(&action, 0, sizeof action);
    action.sa_handler = end;
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    memset(&control, 0, sizeof control);
    control.low = atof(argv[5]);
    control.high = atof(argv[6]);
    if (voq_port_open(argv[1], &control.port, &error) != VOQ_OK) {
        fprintf(stderr, "level: %s\n", error.text);
        return 1;
    }
    if (voq_port_set(control.port, VOQ_BYTE_ORDER, strtol(argv[2], NULL, 0)) == VOQ_OK &&
        voq_range_new(control.port, argv[3], &control.level) == VOQ_OK &&
        voq_range_new(control.port, argv[4], &control.pump) == VOQ_OK) {
        failed = run(&control);
    }
    if (failed) fprintf(stderr, "level: %s\n", voq_port_error(control.port));
    voq_port_close(control.port);
    return failed;
}
