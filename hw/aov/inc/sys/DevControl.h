#pragma once

#include <string>

// Owner of one open descriptor of a device node, and the only road to it.
// Every operation on a closed node returns -22 (-EINVAL).
class DevControl {
  public:
    explicit DevControl(const std::string& name);
    virtual ~DevControl();

    DevControl(const DevControl&) = delete;
    DevControl& operator=(const DevControl&) = delete;

    // 0 on success or when already open, else the system call's negative result.
    int open(int flags);
    // 0 on success, -22 when not open, else the system call's negative result.
    int close();
    // -22 when not open, else exactly what the system call returned.
    int ioctl(int cmd, void* arg, bool flag, const char* name);

  protected:
    std::string name_;
    int fd_;
};
