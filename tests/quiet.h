// Standard output and error sent to /dev/null for the life of the object, for running a command
// function in-process whose report is not wanted (the fuzz targets, the complexity benchmark).
#ifndef OVRIN_TESTS_QUIET_H
#define OVRIN_TESTS_QUIET_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace ovrin::testing {

class Quiet {
public:
    Quiet() {
        std::fflush(nullptr);
        out_ = ::dup(1);
        err_ = ::dup(2);
        int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(null, 1);
        ::dup2(null, 2);
        ::close(null);
    }
    ~Quiet() {
        std::fflush(nullptr);
        ::dup2(out_, 1);
        ::dup2(err_, 2);
        ::close(out_);
        ::close(err_);
    }
    Quiet(const Quiet &) = delete;
    Quiet &operator=(const Quiet &) = delete;

private:
    int out_, err_;
};

} // namespace ovrin::testing

#endif
