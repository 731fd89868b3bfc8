/* ssat_client.h: the other end of the debug shell, for tools that talk to a module.
 *
 * Protocol. A module listens on a Unix stream socket of its own. The client sends a command as one line; the module
 * answers each line, in order, with a header line and a body:
 *
 *     STATUS LENGTH[ cut]\n
 *     LENGTH bytes
 *
 * STATUS is "ok", "failed" (the command returned non-zero), "usage" (a missing, unknown or malformed argument: nothing
 * was called), "unknown" (no such command) or "denied" (not your module; the connection ends). The length tells where
 * an answer ends, whatever the command printed; "cut" says that the command printed more than the module keeps. A line
 * without its line end is never run. Blank lines are not answered.
 *
 * Words of a line are separated by blanks. A word in double quotes may hold blanks, and \" and \\ in it; outside quotes
 * `name=value` gives an argument by its name, any other word the next argument not given yet. The command `help` lists
 * the commands, one a line: the name, one `argument=%conversion` word for each argument, then a tab and the
 * description; `help NAME` tells of one. Beside `help` the shell has one command of its own, which is not listed, and
 * gives way to a command of that name: `counters` prints what the platform has counted for the module's context, one a
 * line, a number, a tab and what it counts.
 *
 * Sockets live in $PLX_SHELL_DIR; without it in /run/plx for root, in plx/ under $XDG_RUNTIME_DIR when that is the
 * user's, else in /tmp/plx-UID. The directory is its owner's alone.
 */
#ifndef SSAT_CLIENT_H
#define SSAT_CLIENT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum ssat_status {
    SSAT_OK = 0,
    SSAT_FAILED = 1,  /* the command ran and returned non-zero */
    SSAT_USAGE = 2,   /* the arguments do not fit: nothing ran */
    SSAT_UNKNOWN = 3, /* no such command */
    SSAT_DENIED = 4   /* the module belongs to another user */
};

/* Calls `func` with the name of each module alive, in no order. 0 on success (also without a single module), otherwise
 * an errno value. */
int ssat_client_modules(void (*func)(const char *module, void *arg), void *arg);

/* Connects to a module. A second process with a module of the same name is MODULE@PID. Returns a descriptor, which the
 * caller closes, or -1 with errno set: ENOENT or ECONNREFUSED when no such module is alive, EAGAIN when
 * it does not take connections at the moment. */
int ssat_client_connect(const char *module);

/* Sends a line, which is given without its line end, and waits for the answer. `func`, when not NULL, gets the body in
 * pieces as it arrives; `cut`, when not NULL, tells whether output was lost. Returns an enum ssat_status, or -1 with
 * errno set: EINVAL for a line that is blank or has a line end in it, ECONNRESET when the module went away, EPROTO when
 * the answer is not one, ETIMEDOUT after ten seconds of silence. */
int ssat_client_run(int fd, const char *line, void (*func)(const char *text, size_t size, void *arg), void *arg,
                    int *cut);

#ifdef __cplusplus
}
#endif

#endif
