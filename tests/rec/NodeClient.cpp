// A client of a node for the recorder's tests: makes a fixed series of calls
// on NODE (and one on OTHER) and prints each call's result and errno, so that
// a run under the recorder can be compared with a run without it.
// Usage: aov_rec_node_client NODE OTHER [paths LINK | bad-pointers | exec-child]
//   paths LINK    reaches NODE by other paths (LINK is a symlink to it, also
//                 opened with O_CREAT), waits on it by select, pselect and
//                 ppoll, reaches it by duplicates, and reuses a node
//                 descriptor's number
//   bad-pointers  readiness calls given memory they cannot read
//   exec-child    runs itself again (no mode) in a forked child, and waits
//   no-stdin      closes descriptor 0, then opens NODE as a directory (refused)
//                 before the plain series
//   fork-child    a forked child (no exec) asks on the inherited node
//                 descriptor and closes it; the parent asks again after it
//   fifo          NODE is a FIFO: opened as descriptor 0 (and duplicated),
//                 a select of a negative range refused,
//                 waited on by select
//                 with each of its sets and by epoll, closed, and its number
//                 reused by an eventfd under the same epoll data; then an
//                 epoll descriptor closed and its number reused the same way;
//                 last the node removed from an epoll descriptor and an
//                 eventfd added there under its data
//   late-watch    NODE is a FIFO, added to an epoll descriptor while another
//                 thread already waits on it, then given a byte: by epoll_wait,
//                 epoll_pwait and epoll_pwait2 in turn; then by epoll_wait
//                 with the byte already there, so that the addition wakes it
//   watch-mod     NODE is a FIFO holding a byte, in an epoll descriptor under
//                 data that is then changed, with a second node descriptor
//                 beside it and an eventfd under the node's former data;
//                 then an epoll descriptor at 0 closed and its number reused,
//                 and a select whose range stops short of the node

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kelo_aov.h"

// The checked open forms a fortified program calls, and the large-file
// forms: declared here so that this client calls them by name.
extern "C" {
int __open_2(const char* path, int flags);
int __openat_2(int dirfd, const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat64_2(int dirfd, const char* path, int flags);
}

namespace {

void show(const char* what, long result) {
    std::printf("%s -> %ld errno %d\n", what, result, result < 0 ? errno : 0);
    errno = 0;
}

// One ioctl that every recorded node descriptor answers the same way.
void ask(const char* what, int fd) {
    int pending = -1;
    show(what, ::ioctl(fd, FIONREAD, &pending));
}

int otherPaths(const char* node, const char* other, const char* link) {
    const int a = ::open(link, O_RDONLY);
    show("open symlink", a >= 0 ? 0 : -1);
    ask("ioctl symlink", a);
    // Readiness through select and pselect (a regular file is always ready,
    // so the 2.5 s limits are never waited for; they are recorded).
    fd_set set;
    FD_ZERO(&set);
    FD_SET(a, &set);
    timeval limit{2, 500000};
    show("select", ::select(a + 1, &set, nullptr, nullptr, &limit));
    FD_ZERO(&set);
    FD_SET(a, &set);
    const timespec limitTs{2, 500000000};
    show("pselect", ::pselect(a + 1, &set, nullptr, nullptr, &limitTs, nullptr));
    FD_ZERO(&set);
    FD_SET(a, &set);
    show("pselect without a limit", ::pselect(a + 1, &set, nullptr, nullptr, nullptr, nullptr));
    pollfd p{a, POLLIN, 0};
    show("ppoll", ::ppoll(&p, 1, &limitTs, nullptr));
    // The longest limit whose milliseconds fit an int, and the first that does not.
    for (const timespec longest : {timespec{2147483, 647999999}, timespec{2147483, 648000000}}) {
        FD_ZERO(&set);
        FD_SET(a, &set);
        show("pselect at the longest limit",
             ::pselect(a + 1, &set, nullptr, nullptr, &longest, nullptr));
    }
    for (const timeval longest : {timeval{2147483, 647999}, timeval{2147483, 648000}}) {
        timeval limit = longest;
        FD_ZERO(&set);
        FD_SET(a, &set);
        show("select at the longest limit", ::select(a + 1, &set, nullptr, nullptr, &limit));
    }
    // The last whole second below the cap, and no limit at all.
    timeval below{2147482, 999999};
    FD_ZERO(&set);
    FD_SET(a, &set);
    show("select below the longest limit", ::select(a + 1, &set, nullptr, nullptr, &below));
    FD_ZERO(&set);
    FD_SET(a, &set);
    show("select without a limit", ::select(a + 1, &set, nullptr, nullptr, nullptr));
    // With O_CREAT a mode is passed, and recorded (the file exists: it is opened).
    const int created = ::open(link, O_RDONLY | O_CREAT, 0640);
    show("open symlink to create", created >= 0 ? 0 : -1);
    ::close(created);
    const std::string doubled = std::string("/") + node;
    const int b = ::open(doubled.c_str(), O_RDONLY);
    show("open doubled slash", b >= 0 ? 0 : -1);
    ask("ioctl doubled slash", b);
    const std::string viaProc = "/proc/self/fd/" + std::to_string(a);
    const int c = ::open(viaProc.c_str(), O_RDONLY);
    show("open proc fd", c >= 0 ? 0 : -1);
    ask("ioctl proc fd", c);
    const std::string path(node);
    const std::string dir = path.substr(0, path.rfind('/'));
    const int dirfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
    const int d = ::openat(dirfd, path.substr(path.rfind('/') + 1).c_str(), O_RDONLY);
    show("openat dirfd", d >= 0 ? 0 : -1);
    ask("ioctl openat dirfd", d);
    const std::string base = path.substr(path.rfind('/') + 1);
    const int forms[] = {::openat64(dirfd, base.c_str(), O_RDONLY), ::__open_2(node, O_RDONLY),
                         ::__openat_2(dirfd, base.c_str(), O_RDONLY), ::__open64_2(node, O_RDONLY),
                         ::__openat64_2(dirfd, base.c_str(), O_RDONLY)};
    for (const int fd : forms) {
        show("open other form", fd >= 0 ? 0 : -1);
        ask("ioctl other form", fd);
    }
    ::close(dirfd);
    const int e = ::dup(a);
    ask("ioctl dup", e);
    const int f = ::fcntl(a, F_DUPFD_CLOEXEC, 100);
    ask("ioctl fcntl dupfd", f);
    const int g = ::dup2(a, 90);
    ask("ioctl dup2", g);
    const int h = ::dup3(a, 91, O_CLOEXEC);
    ask("ioctl dup3", h);
    const int i = ::fcntl64(a, F_DUPFD, 110);
    ask("ioctl fcntl64 dupfd", i);
    // An fcntl that is not a duplicate (its result, 0, is no descriptor).
    show("fcntl getfd", ::fcntl(a, F_GETFD));
    // Onto descriptor 0 (standard input, empty here), then closed, and
    // duplicated onto it again by fcntl.
    show("dup3 onto 0", ::dup3(a, 0, 0));
    ask("ioctl dup3 at 0", 0);
    show("close 0", ::close(0));
    show("fcntl dupfd onto 0", ::fcntl(a, F_DUPFD, 0));
    ask("ioctl fcntl dupfd at 0", 0);
    // And by dup and dup2, each onto a free descriptor 0.
    show("close 0 again", ::close(0));
    show("dup onto 0", ::dup(a));
    ask("ioctl dup at 0", 0);
    show("close 0 once more", ::close(0));
    show("dup2 onto 0", ::dup2(a, 0));
    ask("ioctl dup2 at 0", 0);
    // Close-on-exec set on a range closes nothing.
    show("close_range cloexec",
         ::close_range(static_cast<unsigned>(a), static_cast<unsigned>(a), CLOSE_RANGE_CLOEXEC));
    ask("ioctl after cloexec", a);
    // Numbers that stop being the node's: replaced by dup2, closed by close_range.
    const int o = ::open(other, O_RDONLY);
    show("dup2 other over node", ::dup2(o, g) == g ? 0 : -1);
    ask("ioctl other at dup2", g);
    show("close_range", ::close_range(100u, 100u, 0));
    const int reused = ::fcntl(o, F_DUPFD, 100);
    show("reuse closed number", reused == 100 ? 0 : -1);
    ask("ioctl other at reused", reused);
    for (const int fd : {a, b, c, d, e, g, o, reused, h, i, 0}) {
        ::close(fd);
    }
    for (const int fd : forms) {
        ::close(fd);
    }
    return 0;
}

// Each call fails with EFAULT as it would without the recorder.
int badPointers(const char* node) {
    const int fd = ::open(node, O_RDWR);
    show("open node", fd >= 0 ? 0 : -1);
    void* hole = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    show("poll bad fds", ::poll(static_cast<pollfd*>(hole), 1, 0));
    // 128 entries, the node first: the first 64 readable, the rest in the hole.
    auto* pages = static_cast<char*>(
        ::mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ::mprotect(pages + 4096, 4096, PROT_NONE);
    auto* half = reinterpret_cast<pollfd*>(pages + 4096) - 64;
    for (int i = 0; i < 64; ++i) {
        half[i] = pollfd{i == 0 ? fd : -1, POLLIN, 0};
    }
    show("poll half-readable fds", ::poll(half, 128, 0));
    const timespec zero_ts{0, 0};
    show("ppoll bad fds", ::ppoll(static_cast<pollfd*>(hole), 1, &zero_ts, nullptr));
    const int ep = ::epoll_create1(0);
    show("epoll_ctl bad event",
         ::epoll_ctl(ep, EPOLL_CTL_ADD, fd, static_cast<epoll_event*>(hole)));
    fd_set* set = static_cast<fd_set*>(hole);
    timeval zero{0, 0};
    show("select bad set", ::select(fd + 1, set, nullptr, nullptr, &zero));
    show("ioctl bad record", ::ioctl(fd, AOV_IOC_DEQUEUE_EVENT, hole));
    show("open bad path", ::open(static_cast<const char*>(hole), O_RDONLY));
    ::close(ep);
    show("close node", ::close(fd));
    return 0;
}

// select, without waiting, with the node in each of the sets asked for.
void selectOn(const char* what, int fd, bool read, bool write, bool except) {
    fd_set sets[3];
    for (fd_set& set : sets) {
        FD_ZERO(&set);
        FD_SET(fd, &set);
    }
    timeval zero{0, 0};
    show(what, ::select(fd + 1, read ? &sets[0] : nullptr, write ? &sets[1] : nullptr,
                        except ? &sets[2] : nullptr, &zero));
}

int fifo(const char* node) {
    // The lowest free number is 0: a node descriptor may be 0 too.
    ::close(0);
    const int fd = ::open(node, O_RDWR);
    show("open node as 0", fd == 0 ? 0 : -1);
    ask("ioctl node at 0", fd);
    const int copy0 = ::dup(fd);
    ask("ioctl copy of the node at 0", copy0);
    ::close(copy0);
    // Empty: writable, not readable, never exceptional.
    selectOn("select all sets empty", fd, true, true, true);
    selectOn("select except", fd, false, false, true);
    show("write", ::write(fd, "x", 1));
    selectOn("select all sets holding a byte", fd, true, true, true);
    selectOn("select read", fd, true, false, false);
    // A negative range is refused (EINVAL) before any set is looked at: no
    // wait on the node happened, although its bit is set.
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval zero{0, 0};
    show("select negative range", ::select(-1, &set, nullptr, nullptr, &zero));
    const int ep = ::epoll_create1(0);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = 42;
    show("epoll_ctl node", ::epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev));
    // A change the kernel refuses (EPOLLEXCLUSIVE is for ADD only) leaves the
    // registration and its data as they were.
    ev.events = EPOLLIN | EPOLLEXCLUSIVE;
    ev.data.u64 = 99;
    show("epoll_ctl refused change", ::epoll_ctl(ep, EPOLL_CTL_MOD, fd, &ev));
    show("epoll_wait node", ::epoll_wait(ep, &ev, 1, 0));
    show("close node", ::close(fd));
    // The node's number and its epoll data, now another file's.
    const int other = ::eventfd(1, 0);
    show("eventfd at 0", other == 0 ? 0 : -1);
    ev.events = EPOLLIN;
    ev.data.u64 = 42;
    show("epoll_ctl eventfd", ::epoll_ctl(ep, EPOLL_CTL_ADD, other, &ev));
    show("epoll_wait eventfd", ::epoll_wait(ep, &ev, 1, 0));
    // An epoll descriptor closed with the node still registered; a new one
    // at its number, given the eventfd under the old registration's data.
    const int again = ::open(node, O_RDWR);
    show("open node again", again >= 0 ? 0 : -1);
    ev.events = EPOLLIN;
    ev.data.u64 = 43;
    show("epoll_ctl node again", ::epoll_ctl(ep, EPOLL_CTL_ADD, again, &ev));
    show("close epoll", ::close(ep));
    const int ep2 = ::epoll_create1(0);
    show("epoll at the closed number", ep2 == ep ? 0 : -1);
    show("epoll_ctl eventfd again", ::epoll_ctl(ep2, EPOLL_CTL_ADD, other, &ev));
    // The node by another number: the closed epoll's registration of `again`
    // is not overwritten by this one.
    const int copy = ::dup(again);
    ev.data.u64 = 44;
    show("epoll_ctl node copy in new epoll", ::epoll_ctl(ep2, EPOLL_CTL_ADD, copy, &ev));
    show("write again", ::write(again, "x", 1));
    epoll_event both[2];
    show("epoll_wait both", ::epoll_wait(ep2, both, 2, 0));
    // The node taken out of an epoll descriptor: a file registered there
    // afterwards under the node's data (0, as a removal's own data would
    // read) is not taken for the node.
    const int ep3 = ::epoll_create1(0);
    const int third = ::open(node, O_RDWR);
    ev.events = EPOLLIN;
    ev.data.u64 = 0;
    show("epoll_ctl node third", ::epoll_ctl(ep3, EPOLL_CTL_ADD, third, &ev));
    show("epoll_ctl del node third", ::epoll_ctl(ep3, EPOLL_CTL_DEL, third, nullptr));
    show("epoll_ctl eventfd as the node was", ::epoll_ctl(ep3, EPOLL_CTL_ADD, other, &ev));
    show("epoll_wait after del", ::epoll_wait(ep3, &ev, 1, 0));
    ::close(third);
    ::close(ep3);
    ::close(copy);
    ::close(again);
    ::close(other);
    ::close(ep2);
    return 0;
}

int watchChanged(const char* node) {
    const int fd = ::open(node, O_RDWR);
    const int copy = ::dup(fd);
    const int other = ::eventfd(1, 0);
    const int ep = ::epoll_create1(0);
    show("write", ::write(fd, "x", 1));
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = 46;
    show("epoll_ctl node", ::epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev));
    ev.data.u64 = 47;
    show("epoll_ctl mod node", ::epoll_ctl(ep, EPOLL_CTL_MOD, fd, &ev));
    ev.data.u64 = 48;
    show("epoll_ctl node copy", ::epoll_ctl(ep, EPOLL_CTL_ADD, copy, &ev));
    ev.data.u64 = 46;
    show("epoll_ctl eventfd", ::epoll_ctl(ep, EPOLL_CTL_ADD, other, &ev));
    epoll_event ready[3];
    show("epoll_wait", ::epoll_wait(ep, ready, 3, 0));
    // The byte read: the eventfd alone is ready, under the node's former data.
    char byte = 0;
    show("read", ::read(fd, &byte, 1));
    show("epoll_wait eventfd only", ::epoll_wait(ep, ready, 3, 0));
    show("write again", ::write(fd, "x", 1));
    // An epoll descriptor at 0 closed with the node registered; a new one at
    // 0 given the eventfd under the node's data, and the node's copy.
    ::close(0);
    const int first = ::epoll_create1(0);
    show("epoll at 0", first == 0 ? 0 : -1);
    ev.data.u64 = 49;
    show("epoll_ctl node at 0", ::epoll_ctl(first, EPOLL_CTL_ADD, fd, &ev));
    show("close epoll at 0", ::close(first));
    const int second = ::epoll_create1(0);
    show("epoll at 0 again", second == 0 ? 0 : -1);
    // A registration the kernel refuses leaves the new one without the node.
    epoll_event refused = ev;
    refused.events = EPOLLIN | EPOLLEXCLUSIVE | EPOLLONESHOT;
    show("epoll_ctl node refused at 0", ::epoll_ctl(second, EPOLL_CTL_ADD, fd, &refused));
    show("epoll_ctl eventfd at 0", ::epoll_ctl(second, EPOLL_CTL_ADD, other, &ev));
    show("epoll_wait at 0 without the node", ::epoll_wait(second, ready, 3, 0));
    ev.data.u64 = 50;
    show("epoll_ctl node copy at 0", ::epoll_ctl(second, EPOLL_CTL_ADD, copy, &ev));
    show("epoll_wait at 0", ::epoll_wait(second, ready, 3, 0));
    ::close(second);
    // A select whose range stops short of the node does not wait on it.
    const int high = ::dup2(fd, 9);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(high, &set);
    timeval zero{0, 0};
    show("select short of the node", ::select(high, &set, nullptr, nullptr, &zero));
    ::close(high);
    ::close(ep);
    ::close(other);
    ::close(copy);
    ::close(fd);
    return 0;
}

struct LateWait {
    int epoll;
    int kind;  // 0 epoll_wait, 1 epoll_pwait, 2 epoll_pwait2, 3 epoll_wait
    std::atomic<long> tid{0};
    int result = -1;
};

void* waitLate(void* arg) {
    LateWait* w = static_cast<LateWait*>(arg);
    w->tid = ::syscall(SYS_gettid);
    epoll_event ev{};
    if (w->kind == 0 || w->kind == 3) {
        w->result = ::epoll_wait(w->epoll, &ev, 1, 30000);
    } else if (w->kind == 1) {
        w->result = ::epoll_pwait(w->epoll, &ev, 1, 30000, nullptr);
    } else {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 35)
        const timespec limit{30, 0};
        w->result = ::epoll_pwait2(w->epoll, &ev, 1, &limit, nullptr);
#else
        w->result = ::epoll_pwait(w->epoll, &ev, 1, 30000, nullptr);
#endif
    }
    return nullptr;
}

// Whether thread `tid` is in an epoll wait now, as /proc shows its system call.
bool inEpollWait(long tid) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/syscall";
    std::FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        return false;
    }
    long number = -1;
    const bool read = std::fscanf(file, "%ld", &number) == 1;
    std::fclose(file);
    if (!read) {
        return false;
    }
#ifdef SYS_epoll_wait
    if (number == SYS_epoll_wait) {
        return true;
    }
#endif
#ifdef SYS_epoll_pwait2
    if (number == SYS_epoll_pwait2) {
        return true;
    }
#endif
    return number == SYS_epoll_pwait;
}

int lateWatch(const char* node) {
    const int fd = ::open(node, O_RDWR);
    show("open node", fd >= 0 ? 0 : -1);
    const char* names[] = {"epoll_wait late", "epoll_pwait late", "epoll_pwait2 late",
                           "epoll_wait woken by the addition"};
    for (int kind = 0; kind < 4; ++kind) {
        if (kind == 3) {
            show("write", ::write(fd, "x", 1));
        }
        LateWait w;
        w.epoll = ::epoll_create1(EPOLL_CLOEXEC);
        w.kind = kind;
        pthread_t waiter;
        if (::pthread_create(&waiter, nullptr, waitLate, &w) != 0) {
            return 1;
        }
        // The node is added only once the other thread waits (10 s at most).
        bool waiting = false;
        for (int tries = 0; tries < 10000 && !waiting; ++tries) {
            waiting = w.tid != 0 && inEpollWait(w.tid);
            if (!waiting) {
                const timespec pause{0, 1000 * 1000};
                ::nanosleep(&pause, nullptr);
            }
        }
        show("waiting", waiting ? 0 : -1);
        epoll_event ev{};
        ev.events = EPOLLIN;
        // Added empty, the byte ends the wait; added holding it, the addition.
        show("epoll_ctl node", ::epoll_ctl(w.epoll, EPOLL_CTL_ADD, fd, &ev));
        if (kind < 3) {
            show("write", ::write(fd, "x", 1));
        }
        ::pthread_join(waiter, nullptr);
        show(names[kind], w.result);
        char byte;
        show("read", ::read(fd, &byte, 1));
        ::close(w.epoll);
    }
    show("close node", ::close(fd));
    return 0;
}

int execChild(char* self, char* node, char* other) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        char* args[] = {self, node, other, nullptr};
        ::execv(self, args);
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::printf("child %d exited %d\n", static_cast<int>(pid), WEXITSTATUS(status));
    return 0;
}

int forkChild(const char* node) {
    const int fd = ::open(node, O_RDWR);
    show("open node", fd >= 0 ? 0 : -1);
    ask("ioctl in parent", fd);
    std::fflush(stdout);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ask("ioctl in child", fd);
        show("close in child", ::close(fd));
        // exit, not _exit: the exit handlers finish the child's file.
        std::exit(0);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::printf("child %d exited %d\n", static_cast<int>(pid), WEXITSTATUS(status));
    ask("ioctl in parent after the child", fd);
    show("close node", ::close(fd));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: aov_rec_node_client NODE OTHER [MODE...]\n");
        return 2;
    }
    const std::string mode = argc > 3 ? argv[3] : "";
    if (mode == "paths" && argc == 5) {
        return otherPaths(argv[1], argv[2], argv[4]);
    }
    if (mode == "fork-child") {
        return forkChild(argv[1]);
    }
    if (mode == "bad-pointers") {
        return badPointers(argv[1]);
    }
    if (mode == "fifo") {
        return fifo(argv[1]);
    }
    if (mode == "late-watch") {
        return lateWatch(argv[1]);
    }
    if (mode == "watch-mod") {
        return watchChanged(argv[1]);
    }
    if (mode == "no-stdin") {
        // The first call on the node, a refused open, finds descriptor 0 free.
        ::close(0);
        show("open node as a directory", ::open(argv[1], O_RDONLY | O_DIRECTORY));
    }
    const int fd = ::open(argv[1], O_RDWR);
    show("open node", fd);
    int pending = -1;
    show("ioctl FIONREAD", ::ioctl(fd, FIONREAD, &pending));
    std::printf("pending %d\n", pending);
    // A request the file does not know, with a record that cannot be read.
    void* hole = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    show("ioctl START unreadable", ::ioctl(fd, AOV_IOC_START, hole));
    unsigned char start[AOV_START_RECORD_SIZE] = {1, 2, 3};
    show("ioctl START", ::ioctl(fd, AOV_IOC_START, start));
    show("ioctl STOP", ::ioctl(fd, AOV_IOC_STOP, nullptr));
    pollfd p{fd, POLLIN, 0};
    show("poll", ::poll(&p, 1, 0));
    std::printf("revents %d\n", p.revents);
    // A wait for what a file never reports: it times out, nothing ready.
    pollfd priority{fd, POLLPRI, 0};
    show("poll priority", ::poll(&priority, 1, 0));
    std::printf("revents %d\n", priority.revents);
    const int ep = ::epoll_create1(0);
    epoll_event ev{};
    ev.events = EPOLLIN;
    show("epoll_ctl regular file", ::epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev));
    show("epoll_wait", ::epoll_wait(ep, &ev, 1, 0));

    const int other = ::open(argv[2], O_RDONLY);
    show("open other", other >= 0 ? 0 : -1);
    show("ioctl other FIONREAD", ::ioctl(other, FIONREAD, &pending));
    show("close other", ::close(other));

    const int again = ::openat(AT_FDCWD, argv[1], O_RDONLY);
    show("openat node", again >= 0 ? 0 : -1);
    show("close node", ::close(fd));
    show("close node twice", ::close(fd));
    show("ioctl closed node", ::ioctl(fd, AOV_IOC_STOP, nullptr));
    show("close openat node", ::close(again));
    show("close epoll", ::close(ep));
    show("open missing node", ::open("/nonexistent/kelo_aov", O_RDWR));
    if (mode == "exec-child") {
        std::fflush(stdout);
        return execChild(argv[0], argv[1], argv[2]);
    }
    return 0;
}
