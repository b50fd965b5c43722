/* publish FILE: rewrites the alarms file FILE in place with standard input, under an exclusive
 * lock. The way for a publisher that may write the file but not its directory.
 *   cc -o publish publish.c
 */

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

/* Takes the lock and looks at the file. Versions are told apart by their times in whole seconds,
 * and only the owner of a file and root set a time; anyone else waits here, without the lock, until
 * now is later than the version before. */
static int lockInTime(int file, struct stat *status, int *maySetTime)
{
    while (flock(file, LOCK_EX) == 0 && fstat(file, status) == 0) {
        *maySetTime = geteuid() == 0 || geteuid() == status->st_uid;
        if (*maySetTime || time(NULL) > status->st_mtime)
            return 0;
        flock(file, LOCK_UN);
        sleep(1);
    }
    return -1;
}

/* The room is had before anything changes, so a full disk leaves the version before. */
static int rewrite(int file, const char *text, size_t length, const struct stat *before)
{
    int error = length > 0 ? posix_fallocate(file, 0, (off_t)length) : 0;
    if (error != 0) {
        if (ftruncate(file, before->st_size) == 0)
            errno = error;
        return -1;
    }
    errno = EIO;
    return write(file, text, length) == (ssize_t)length ? ftruncate(file, (off_t)length) : -1;
}

static int publish(int file, const char *text, size_t length)
{
    struct stat before;
    struct timespec times[2] = {{0, UTIME_OMIT}, {0, 0}};
    int maySetTime;
    sigset_t all;

    if (lockInTime(file, &before, &maySetTime) < 0)
        return -1;
    /* A signal waits for the end, which is near: a file written in part would be read. */
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, NULL);
    if (rewrite(file, text, length, &before) < 0)
        return -1;
    /* Counting up from the version before never comes back to a time that was used already. */
    times[1].tv_sec = time(NULL);
    if (times[1].tv_sec <= before.st_mtime)
        times[1].tv_sec = before.st_mtime + 1;
    return futimens(file, maySetTime ? times : NULL);
}

int main(int argc, char *argv[])
{
    static char text[65536];
    size_t length;
    int file;

    if (argc != 2) {
        fprintf(stderr, "usage: publish FILE\n");
        return 2;
    }
    length = fread(text, 1, sizeof text, stdin);
    if (!feof(stdin)) {
        fprintf(stderr, "standard input is too long\n");
        return 1;
    }
    /* No O_TRUNC: nothing may change before the lock is held. Links and FIFOs are no alarms file. */
    file = open(argv[1], O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
    /* Closing gives the lock back. */
    if (file < 0 || publish(file, text, length) < 0 || close(file) < 0) {
        perror(argv[1]);
        return 1;
    }
    return 0;
}
