#pragma once

// The camera stack's wrappers of the system calls used on device nodes.
// Each returns a negative value on failure (the negated errno on the host).
class SystemCall {
  public:
    static int open(const char* path, int flags);
    static int close(int fd);
    // `logOnError` and `tag` are options of the wrapper; callers that log
    // their own failures pass false and nullptr.
    static int ioctl(int fd, int request, void* arg, bool logOnError, const char* tag);
};
