#pragma once

// Readiness as the library's event monitor sees it: the node's descriptor on
// an epoll instance, registered with an empty mask first and then modified to
// EPOLLIN, as the system layer's monitor arms it. A driver may block any of
// these calls, so they are made in a guarded child (see Guarded.h).

namespace aovsimtool {

// Registers `fd` on `epfd` as the monitor does: 0, or -1 with errno set.
long armAsMonitor(int epfd, int fd);

// Waits up to `waitMs` on `epfd`: the events of the descriptor that became
// ready (EPOLLIN, EPOLLERR and EPOLLHUP share poll's values), 0 when none
// did, -1 with errno set.
long waitAsMonitor(int epfd, int waitMs);

// Both on an epoll instance of its own, closed before it returns.
long pollAsMonitor(int fd, int waitMs);

}  // namespace aovsimtool
