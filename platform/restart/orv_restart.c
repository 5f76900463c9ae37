#include "orv_restart.h"

#include <stdio.h>
#include <unistd.h>

enum { kRestartExitStatus = 70 /* EX_SOFTWARE: the supervisor restarts us */ };

void orv_ng_restart_request_line_and_file(int line, const char *file, int kind, const char *text,
                                          int arg1, int arg2)
{
    (void)kind;
    (void)arg1;
    (void)arg2;
    /* stdout may hold verbose lines the operator wants; stderr is unbuffered. */
    fflush(stdout);
    fprintf(stderr, "solicd: restart requested at %s:%d: %s\n", file ? file : "?", line,
            text ? text : "");
    _exit(kRestartExitStatus);
}
