// Preloaded into the test programs of a cross build that run under qemu-arm. Qt starts child processes
// through clone(CLONE_PIDFD) once waitid(P_PIDFD) answers like a kernel that has pidfds, and qemu-user 7.2
// passes that waitid to the kernel but refuses the clone, so every QProcess "crashes" at start. Saying that
// waitid(P_PIDFD) is not there makes Qt take its plain fork path, which the emulator runs. A real Arm kernel
// needs none of this.

#include <dlfcn.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>

namespace {

// idtype_t P_PIDFD of <linux/wait.h>; glibc's <sys/wait.h> does not name it.
constexpr long kIdTypePidfd = 3;
constexpr int kMaxSyscallArguments = 6;

using SyscallFunction = long (*)(long, ...);

// The programs the tests start do not start others; they run without the preload (it would not even load into
// an emulator that runs on the build machine).
__attribute__((constructor)) void forgetPreload() {
    unsetenv("LD_PRELOAD");
}

}  // namespace

extern "C" long syscall(long number, ...) {
    long arguments[kMaxSyscallArguments];
    va_list list;
    va_start(list, number);
    for (long& argument : arguments) argument = va_arg(list, long);
    va_end(list);
    if (number == SYS_waitid && arguments[0] == kIdTypePidfd) {
        errno = ENOSYS;
        return -1;
    }
    static const auto real = reinterpret_cast<SyscallFunction>(dlsym(RTLD_NEXT, "syscall"));
    return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
