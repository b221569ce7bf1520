/* Runs a command and writes "WALL CPU PEAK" (seconds, user + system seconds, peak resident KiB)
 * to FILE. A process forked from the benchmark's Python starts with Python's memory high-water
 * mark; a child of this small program starts with this program's, so its peak is its own.
 * Usage: rusage FILE COMMAND [ARGS...]; exits with the command's status. */
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double seconds(struct timeval t)
{
    return t.tv_sec + t.tv_usec / 1e6;
}

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: rusage FILE COMMAND [ARGS...]\n");
        return 64;
    }
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    pid_t child = fork();
    if (child == 0) {
        execvp(argv[2], argv + 2);
        perror(argv[2]);
        _exit(127);
    }
    int status;
    struct rusage usage;
    if (child < 0 || wait4(child, &status, 0, &usage) < 0) {
        perror("rusage");
        return 1;
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    FILE *out = fopen(argv[1], "w");
    if (!out) {
        perror(argv[1]);
        return 1;
    }
    fprintf(out, "%.6f %.6f %ld\n", (end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9,
            seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss);
    fclose(out);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
