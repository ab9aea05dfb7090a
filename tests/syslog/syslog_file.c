/* Stands in for the C library's syslog in a program that runs as a process of its own: preloaded, it
 * appends each entry to the file TARN_TEST_SYSLOG as a line "<PRIORITY>text". */
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

void syslog(int priority, const char *format, ...);
void __syslog_chk(int priority, int flag, const char *format, ...);

static void append(int priority, const char *format, va_list args)
{
    const char *const path = getenv("TARN_TEST_SYSLOG");
    const int fd = path != NULL ? open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600) : -1;
    if (fd >= 0)
    {
        (void)dprintf(fd, "<%d>", priority);
        (void)vdprintf(fd, format, args);
        (void)dprintf(fd, "\n");
        (void)close(fd);
    }
}

void syslog(int priority, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    append(priority, format, args);
    va_end(args);
}

/* what a fortified program calls */
void __syslog_chk(int priority, int flag, const char *format, ...)
{
    va_list args;
    (void)flag;
    va_start(args, format);
    append(priority, format, args);
    va_end(args);
}
