/* The platform restart service. A fatal condition asks the supervisor to restart the process. */
#ifndef ORV_RESTART_H
#define ORV_RESTART_H

#ifdef __cplusplus
extern "C" {
#endif

/* Requests a restart of the calling process. `line` and `file` name the source position of the
 * request, `text` its reason. On a generic Linux the request is one line on stderr and the process
 * ends with status 70, for its supervisor to start it again. */
void orv_ng_restart_request_line_and_file(int line, const char *file, int kind, const char *text,
                                          int arg1, int arg2);

#ifdef __cplusplus
}
#endif

#endif
