/* A process watchdog that says what it is asked for. Its results are WATCH_PROCESS_RC of the
 * environment, else 0. WITHOUT_<function> leaves a function out. */
#include <stdio.h>
#include <stdlib.h>

int watch_process_register(int timeout_s);
int watch_process_strobe(void);
int watch_process_unregister(void);
int watch_process_unregister_cmd(const char *cmd);
const char *watch_process_error_string(int rc);

static int result(void)
{
    const char *const rc = getenv("WATCH_PROCESS_RC");
    return rc != NULL ? atoi(rc) : 0;
}

#ifndef WITHOUT_register
int watch_process_register(int timeout_s)
{
    printf("register %d\n", timeout_s);
    return result();
}
#endif

#ifndef WITHOUT_strobe
int watch_process_strobe(void)
{
    printf("strobe\n");
    return result();
}
#endif

#ifndef WITHOUT_unregister
int watch_process_unregister(void)
{
    printf("unregister\n");
    return result();
}
#endif

#ifndef WITHOUT_unregister_cmd
int watch_process_unregister_cmd(const char *cmd)
{
    printf("unregister_cmd %s\n", cmd);
    return result();
}
#endif

#ifndef WITHOUT_error_string
const char *watch_process_error_string(int rc)
{
    return rc == 0 ? "good" : "bad";
}
#endif

/* without any function there would be an empty translation unit */
int watch_process_of_the_tests(void);
int watch_process_of_the_tests(void)
{
    return result();
}
