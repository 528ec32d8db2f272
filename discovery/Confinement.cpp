#include "Confinement.h"

#include "Platform/discovery/Messages.h"
#include "Platform/system/Sanitizers.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <initializer_list>
#include <linux/sockios.h>
#include <memory>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tessary::discovery {

namespace {

/// Audio and MIDI programs take precedence even if the network keeps this process busy, yet on a busy machine
/// it still finds devices.
constexpr int niceness = 5;

bool limit(__rlimit_resource_t resource, rlim_t most) {
    rlimit wanted{};
    if (getrlimit(resource, &wanted) != 0) return false;
    wanted.rlim_max = std::min(wanted.rlim_max, most);
    wanted.rlim_cur = wanted.rlim_max;
    return setrlimit(resource, &wanted) == 0;
}

bool setLimits() {
    bool isSet = limit(RLIMIT_NOFILE, 64); // two sockets, netlink, the bus, and a few more at the start
    isSet &= limit(RLIMIT_NPROC, 0);
    isSet &= limit(RLIMIT_FSIZE, 0);
    if (!isSanitized) isSet &= limit(RLIMIT_AS, maxAddressSpace);
    return isSet;
}

scmp_arg_cmp isEqual(unsigned argument, scmp_datum_t value) {
    return {.arg = argument, .op = SCMP_CMP_EQ, .datum_a = value, .datum_b = 0};
}

/// The argument's bits in `mask` equal `value`.
scmp_arg_cmp hasBits(unsigned argument, scmp_datum_t mask, scmp_datum_t value) {
    return {.arg = argument, .op = SCMP_CMP_MASKED_EQ, .datum_a = mask, .datum_b = value};
}

/// Builds the system call filter.
class Filter {
  public:
    Filter()
        : context_(seccomp_init(SCMP_ACT_ERRNO(EPERM)), seccomp_release)
        , isComplete_(context_ != nullptr) {}

    void allow(std::initializer_list<int> calls) {
        for (const int call : calls)
            add(call, {});
    }
    void allowWith(int call, std::initializer_list<scmp_arg_cmp> conditions) { add(call, conditions); }
    /// Allows the call only if the argument has one of these values.
    void allowWith(int call, unsigned argument, std::initializer_list<int> values) {
        for (const int value : values)
            add(call, {isEqual(argument, static_cast<scmp_datum_t>(value))});
    }

    bool load() const { return isComplete_ && seccomp_load(context_.get()) == 0; }

  private:
    void add(int call, std::initializer_list<scmp_arg_cmp> conditions) {
        isComplete_ = isComplete_ && seccomp_rule_add_array(context_.get(), SCMP_ACT_ALLOW, call,
                                                            static_cast<unsigned>(conditions.size()),
                                                            conditions.begin()) == 0;
    }

    const std::unique_ptr<void, void (*)(scmp_filter_ctx)> context_;
    bool isComplete_;
};

bool loadFilter() {
    if (isSanitized) return true;
    Filter filter;
    filter.allow(
        {SCMP_SYS(brk),          SCMP_SYS(clock_getres),   SCMP_SYS(clock_gettime), SCMP_SYS(clock_nanosleep),
         SCMP_SYS(close),        SCMP_SYS(exit),           SCMP_SYS(exit_group),    SCMP_SYS(futex),
         SCMP_SYS(getegid),      SCMP_SYS(geteuid),        SCMP_SYS(getgid),        SCMP_SYS(getpid),
         SCMP_SYS(getppid),      SCMP_SYS(getrandom),      SCMP_SYS(getresgid),     SCMP_SYS(getresuid),
         SCMP_SYS(gettid),       SCMP_SYS(gettimeofday),   SCMP_SYS(getuid),        SCMP_SYS(madvise),
         SCMP_SYS(mremap),       SCMP_SYS(munmap),         SCMP_SYS(nanosleep),     SCMP_SYS(restart_syscall),
         SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigreturn),  SCMP_SYS(sched_yield),
         SCMP_SYS(sysinfo),      SCMP_SYS(time),           SCMP_SYS(uname)});
    // Open files
    filter.allow({SCMP_SYS(fstat), SCMP_SYS(read), SCMP_SYS(readv), SCMP_SYS(write), SCMP_SYS(writev)});
    filter.allowWith(SCMP_SYS(fcntl), 1, {F_GETFD, F_SETFD, F_GETFL, F_SETFL});
    // Sockets: mDNS, netlink, the system bus
    filter.allowWith(SCMP_SYS(socket), {isEqual(0, AF_UNIX), hasBits(1, 0xf, SOCK_STREAM)});
    filter.allowWith(SCMP_SYS(socket), {isEqual(0, AF_INET), hasBits(1, 0xf, SOCK_DGRAM)});
    filter.allowWith(SCMP_SYS(socket), {isEqual(0, AF_INET6), hasBits(1, 0xf, SOCK_DGRAM)});
    filter.allowWith(SCMP_SYS(socket), {isEqual(0, AF_NETLINK), hasBits(1, 0xf, SOCK_DGRAM)});
    filter.allowWith(SCMP_SYS(socket), {isEqual(0, AF_NETLINK), hasBits(1, 0xf, SOCK_RAW)});
    filter.allow({SCMP_SYS(bind), SCMP_SYS(connect), SCMP_SYS(getpeername), SCMP_SYS(getsockname),
                  SCMP_SYS(getsockopt), SCMP_SYS(recvfrom), SCMP_SYS(recvmsg), SCMP_SYS(sendmsg),
                  SCMP_SYS(sendto), SCMP_SYS(setsockopt), SCMP_SYS(shutdown)});
    filter.allowWith(SCMP_SYS(ioctl), 1, {FIONREAD, SIOCGIFNAME, SIOCGIFINDEX, SIOCGIFADDR, SIOCGIFFLAGS});
    // Waiting
    filter.allow({SCMP_SYS(eventfd2), SCMP_SYS(pipe2), SCMP_SYS(poll), SCMP_SYS(ppoll), SCMP_SYS(select),
                  SCMP_SYS(pselect6)});
    // Memory that is not executable; abort after a failed assertion; reading its own limits
    filter.allowWith(SCMP_SYS(mmap), {hasBits(2, PROT_EXEC, 0)});
    filter.allowWith(SCMP_SYS(mprotect), {hasBits(2, PROT_EXEC, 0)});
    filter.allowWith(SCMP_SYS(tgkill), {isEqual(0, static_cast<scmp_datum_t>(getpid()))});
    filter.allowWith(SCMP_SYS(prlimit64), {isEqual(2, 0)});
    return filter.load();
}

} // namespace

std::uint8_t confine() {
    unsigned refused = 0;
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) refused |= refusedParentDeath;
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) refused |= refusedPrivileges;
    prctl(PR_SET_DUMPABLE, 0); // no core files, and no debuggers of the same user
    setpriority(PRIO_PROCESS, 0, niceness);
    if (!setLimits()) refused |= refusedLimits;
    if (!loadFilter()) refused |= refusedFilter;
    return static_cast<std::uint8_t>(refused);
}

} // namespace tessary::discovery
