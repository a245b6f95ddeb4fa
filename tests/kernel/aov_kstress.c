/*
 * Checks run inside the guest against the kernel driver, beyond what the
 * checker does: start/stop cycles, closes while started, the bounded queue
 * with its overwrite count, and STOP discarding what is pending. Each
 * problem is one line starting "FAIL"; the exit status is the number of
 * groups that failed (0: all passed). Every wait has a limit.
 *
 *   aov_kstress NODE STATUS cycles N
 *   aov_kstress NODE STATUS close-loop N
 *   aov_kstress NODE STATUS queue DEPTH
 *   aov_kstress NODE STATUS stop-discards
 *   aov_kstress NODE STATUS blocked-stop     (module loaded with the blocking-dequeue bug)
 *
 * STATUS is the driver's status file (debugfs), read for its counters.
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "kelo_aov.h"

enum { kWaitLimitMs = 5000 };

static const char* g_node;
static const char* g_status;

static int failf(const char* group, const char* what, long got) {
    printf("FAIL %s: %s (got %ld, errno %s)\n", group, what, got, strerror(errno));
    return 1;
}

/* A counter of the status file, or -1 when it cannot be read. */
static long long counter(const char* key) {
    char line[128];
    long long value = -1;
    FILE* file = fopen(g_status, "r");
    if (file == NULL) {
        return -1;
    }
    const size_t length = strlen(key);
    while (fgets(line, sizeof(line), file) != NULL) {
        if (strncmp(line, key, length) == 0 && line[length] == ' ') {
            value = strtoll(line + length + 1, NULL, 10);
            break;
        }
    }
    fclose(file);
    return value;
}

static long long nowMs(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

/* Waits until the counter reaches `target`; 0, or -1 after kWaitLimitMs. */
static int waitCounter(const char* key, long long target) {
    const long long until = nowMs() + kWaitLimitMs;
    while (counter(key) < target) {
        if (nowMs() > until) {
            return -1;
        }
        struct timespec tick = {0, 2 * 1000 * 1000};
        nanosleep(&tick, NULL);
    }
    return 0;
}

static void startRecord(aov_start_record record, int frameRate) {
    memset(record, 0, AOV_START_RECORD_SIZE);
    memcpy(record + AOV_START_FRAME_RATE, &frameRate, sizeof(frameRate));
}

static int readable(int fd, int timeoutMs) {
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, timeoutMs) == 1 && (p.revents & POLLIN) != 0;
}

/* Header-only dequeue: no event of these runs carries content. */
static int dequeueHeader(int fd, struct aov_event_query* query) {
    memset(query, 0, sizeof(*query));
    return ioctl(fd, AOV_IOC_DEQUEUE_EVENT, query);
}

static int cycles(int n) {
    const char* group = "cycles";
    aov_start_record record;
    startRecord(record, 30);
    const int fd = open(g_node, O_RDWR);
    if (fd < 0) {
        return failf(group, "open", fd);
    }
    const long long before = counter("requests");
    for (int i = 0; i < n; ++i) {
        int r = ioctl(fd, AOV_IOC_START, record);
        if (r != 0) {
            close(fd);
            return failf(group, "START", r);
        }
        r = ioctl(fd, AOV_IOC_STOP, NULL);
        if (r != 0) {
            close(fd);
            return failf(group, "STOP", r);
        }
    }
    int failed = 0;
    if (readable(fd, 0)) {
        failed |= failf(group, "readable after the last STOP", 1);
    }
    close(fd);
    if (counter("requests") - before != 2LL * n) {
        failed |= failf(group, "requests counted", (long)(counter("requests") - before));
    }
    if (counter("started") != 0 || counter("pending") != 0) {
        failed |= failf(group, "session left after the cycles", (long)counter("started"));
    }
    if (!failed) {
        printf("ok cycles: %d START/STOP\n", n);
    }
    return failed;
}

/* Closes a started node, half of the time with an event pending. */
static int closeLoop(int n) {
    const char* group = "close-loop";
    aov_start_record record;
    startRecord(record, 30);
    for (int i = 0; i < n; ++i) {
        const int fd = open(g_node, O_RDWR);
        if (fd < 0) {
            return failf(group, "open", fd);
        }
        const int r = ioctl(fd, AOV_IOC_START, record);
        if (r != 0) {
            close(fd);
            return failf(group, "START after a close while started", r);
        }
        if (i % 2 == 1 && !readable(fd, kWaitLimitMs)) {
            close(fd);
            return failf(group, "an event after START", 0);
        }
        if (close(fd) != 0) {
            return failf(group, "close while started", -1);
        }
    }
    if (counter("started") != 0 || counter("open_files") != 0) {
        return failf(group, "session or file left after the loop", (long)counter("open_files"));
    }
    printf("ok close-loop: %d closes while started\n", n);
    return 0;
}

/* The session's event limit, a parameter of the module that may change at run time. */
static const char kSessionEvents[] = "/sys/module/kelo_aov/parameters/session_events";

static int setSessionEvents(int events) {
    FILE* file = fopen(kSessionEvents, "w");
    if (file == NULL) {
        return -1;
    }
    const int written = fprintf(file, "%d\n", events);
    return fclose(file) == 0 && written > 0 ? 0 : -1;
}

/*
 * A session of DEPTH + 3 events with nobody dequeuing: the queue keeps the
 * newest DEPTH, in order, and the three it overwrote are counted, in the
 * counters and in header[4] of each event.
 */
static int queue(int depth) {
    const char* group = "queue";
    const int events = depth + 3;
    aov_start_record record;
    startRecord(record, 30);
    if (setSessionEvents(events) != 0) {
        return failf(group, "session_events set through sysfs", -1);
    }
    const int fd = open(g_node, O_RDWR);
    if (fd < 0) {
        setSessionEvents(0);
        return failf(group, "open", fd);
    }
    const long long produced = counter("produced");
    const long long overruns = counter("overruns");
    int failed = 0;
    int r = ioctl(fd, AOV_IOC_START, record);
    if (r != 0) {
        failed |= failf(group, "START", r);
    } else if (waitCounter("produced", produced + events) != 0) {
        failed |= failf(group, "DEPTH + 3 events produced in time", (long)counter("produced"));
    } else {
        struct aov_event_query query;
        int taken = 0;
        unsigned int expected = (unsigned int)(events - depth + 1);
        while (readable(fd, 0) && taken <= events) {
            r = dequeueHeader(fd, &query);
            if (r != 0) {
                failed |= failf(group, "dequeue while readable", r);
                break;
            }
            if (query.header[0] != expected) {
                failed |= failf(group, "the newest events, in order", query.header[0]);
            }
            if (query.header[4] != (unsigned int)counter("overruns")) {
                failed |= failf(group, "overwrites so far in header[4]", query.header[4]);
            }
            ++expected;
            ++taken;
        }
        if (taken != depth) {
            failed |= failf(group, "a full queue holds DEPTH events", taken);
        }
        if (counter("overruns") - overruns != 3) {
            failed |= failf(group, "3 overwrites counted", (long)(counter("overruns") - overruns));
        }
        if (counter("produced") - produced != events) {
            failed |= failf(group, "the session stops at session_events",
                            (long)(counter("produced") - produced));
        }
        r = dequeueHeader(fd, &query);
        if (r != -1 || errno != EAGAIN) {
            failed |= failf(group, "empty dequeue refused with EAGAIN", r);
        }
    }
    ioctl(fd, AOV_IOC_STOP, NULL);
    close(fd);
    if (setSessionEvents(0) != 0) {
        failed |= failf(group, "session_events reset", -1);
    }
    if (!failed) {
        printf("ok queue: %d of %d events held, 3 overwritten\n", depth, events);
    }
    return failed;
}

static int stopDiscards(void) {
    const char* group = "stop-discards";
    aov_start_record record;
    startRecord(record, 30);
    const int fd = open(g_node, O_RDWR);
    if (fd < 0) {
        return failf(group, "open", fd);
    }
    const long long discarded = counter("discarded_at_stop");
    const long long produced = counter("produced");
    int r = ioctl(fd, AOV_IOC_START, record);
    if (r == 0 && waitCounter("produced", produced + 2) != 0) {
        r = -2;
    }
    int failed = 0;
    if (r != 0) {
        failed |= failf(group, "START and two events", r);
    } else {
        ioctl(fd, AOV_IOC_STOP, NULL);
        if (counter("discarded_at_stop") - discarded < 1 || counter("pending") != 0) {
            failed |= failf(group, "pending events discarded at STOP",
                            (long)(counter("discarded_at_stop") - discarded));
        }
        struct aov_event_query query;
        r = dequeueHeader(fd, &query);
        if (r != -1 || errno != EINVAL) {
            failed |= failf(group, "dequeue after STOP refused with EINVAL", r);
        }
        if (ioctl(fd, AOV_IOC_START, record) != 0 || readable(fd, 0)) {
            failed |= failf(group, "a new session starts empty", -1);
        }
        ioctl(fd, AOV_IOC_STOP, NULL);
    }
    close(fd);
    if (!failed) {
        printf("ok stop-discards: %lld discarded\n", counter("discarded_at_stop") - discarded);
    }
    return failed;
}

/* The state letter of /proc/PID/stat ('D' while in an uninterruptible or killable wait). */
static char processState(pid_t pid) {
    char path[64];
    char text[256];
    snprintf(path, sizeof(path), "/proc/%d/stat", (int)pid);
    FILE* file = fopen(path, "r");
    if (file == NULL) {
        return '?';
    }
    const size_t length = fread(text, 1, sizeof(text) - 1, file);
    fclose(file);
    text[length] = '\0';
    const char* paren = strrchr(text, ')');
    return paren != NULL && paren[1] == ' ' ? paren[2] : '?';
}

/* Waits up to kWaitLimitMs for the child's exit; its status, or -1 (then it is killed). */
static int reap(pid_t pid) {
    const long long until = nowMs() + kWaitLimitMs;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (nowMs() > until) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        struct timespec tick = {0, 2 * 1000 * 1000};
        nanosleep(&tick, NULL);
    }
    return status;
}

/*
 * With the module's blocking-dequeue bug (block_empty_dequeue=1,
 * session_events=1, content_every=0): a dequeue that blocks on an empty queue
 * ends when the session is stopped, refused with EINVAL.
 */
static int blockedStop(void) {
    const char* group = "blocked-stop";
    aov_start_record record;
    startRecord(record, 30);
    const int fd = open(g_node, O_RDWR);
    if (fd < 0) {
        return failf(group, "open", fd);
    }
    const long long produced = counter("produced");
    struct aov_event_query query;
    int r = ioctl(fd, AOV_IOC_START, record);
    if (r != 0 || waitCounter("produced", produced + 1) != 0 || dequeueHeader(fd, &query) != 0) {
        close(fd);
        return failf(group, "START and the session's one event", r);
    }
    const pid_t child = fork();
    if (child == 0) {
        r = dequeueHeader(fd, &query);
        _exit(r == -1 && errno == EINVAL ? 0 : 1);
    }
    int failed = 0;
    const long long until = nowMs() + kWaitLimitMs;
    while (processState(child) != 'D' && nowMs() <= until) {
        struct timespec tick = {0, 2 * 1000 * 1000};
        nanosleep(&tick, NULL);
    }
    if (processState(child) != 'D') {
        failed |= failf(group, "the empty dequeue blocks", processState(child));
    }
    ioctl(fd, AOV_IOC_STOP, NULL);
    const int status = reap(child);
    if (status == -1) {
        failed |= failf(group, "the blocked dequeue ends at STOP (killed after the limit)", -1);
    } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        failed |= failf(group, "the blocked dequeue refused with EINVAL", status);
    }
    close(fd);
    if (!failed) {
        printf("ok blocked-stop: a blocked dequeue ended at STOP\n");
    }
    return failed;
}

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr,
                "usage: aov_kstress NODE STATUS cycles|close-loop|queue|stop-discards|blocked-stop "
                "[N]\n");
        return 64;
    }
    g_node = argv[1];
    g_status = argv[2];
    if (counter("requests") < 0) {
        fprintf(stderr, "aov_kstress: no counters in %s\n", g_status);
        return 64;
    }
    const char* what = argv[3];
    const int n = argc > 4 ? atoi(argv[4]) : 0;
    if (strcmp(what, "cycles") == 0 && n > 0) {
        return cycles(n);
    }
    if (strcmp(what, "close-loop") == 0 && n > 0) {
        return closeLoop(n);
    }
    if (strcmp(what, "queue") == 0 && n > 0) {
        return queue(n);
    }
    if (strcmp(what, "stop-discards") == 0) {
        return stopDiscards();
    }
    if (strcmp(what, "blocked-stop") == 0) {
        return blockedStop();
    }
    fprintf(stderr, "aov_kstress: unknown check or count \"%s\"\n", what);
    return 64;
}
