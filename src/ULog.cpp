#include "ULog.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <execinfo.h>
#include <memory>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

/// For functions that a stack trace counts.
#define OWN_FRAME __attribute__((noinline))

namespace {

constexpr int kMaxFrames = 80;
constexpr std::size_t kMessageSize = 256;
constexpr std::size_t kModuleSize = 128;
constexpr std::size_t kSymbolSize = 256;
constexpr std::size_t kSwitchPathSize = 1024;
constexpr time_t kSwitchLookSeconds = 5;

/// Copies the text from `begin` up to `end` and terminates it, cut when the buffer is too small.
template <std::size_t Size> void CopyRange(char (&buffer)[Size], const char *begin, const char *end) {
    std::size_t length = static_cast<std::size_t>(end - begin);
    if (length >= Size)
        length = Size - 1;
    std::memcpy(buffer, begin, length);
    buffer[length] = '\0';
}

/// Ends a truncated format before its last conversion, which may be incomplete.
void DropLastConversion(char *format) {
    char *last = nullptr;
    for (char *at = std::strchr(format, '%'); at != nullptr; at = std::strchr(at, '%')) {
        const bool literal = at[1] == '%';
        if (!literal)
            last = at;
        at += literal ? 2 : 1;
    }
    if (last != nullptr)
        *last = '\0';
}

/// Writes one frame that backtrace_symbols described as "module(symbol+offset) [address]".
/// A frame whose name cannot be demangled is written unchanged and does not count for `skip`.
void WriteFrame(const char *frame, int &skip) {
    const char *open = std::strchr(frame, '(');
    const char *close = std::strchr(frame, ')');
    if (open == nullptr || close == nullptr || close - open - 1 < 1) {
        USysLog::Write(USysLog::Error, "%s\n", frame);
        return;
    }
    char symbol[kSymbolSize];
    CopyRange(symbol, open + 1, close);
    if (char *offset = std::strchr(symbol, '+'))
        *offset = '\0';
    char module[kModuleSize];
    CopyRange(module, frame, open);
    const std::unique_ptr<char, decltype(&std::free)> name(abi::__cxa_demangle(symbol, nullptr, nullptr, nullptr),
                                                           &std::free);
    if (name == nullptr) {
        USysLog::Write(USysLog::Error, "%s\n", frame);
        return;
    }
    if (skip > 0)
        --skip;
    else
        USysLog::Write(USysLog::Error, "%s: %s%s\n", module, name.get(), close + 1);
}

} // namespace

const char *const UError::sErrorCode[kLastCode + 1] = {
    // clang-format off
    "SUCCESS", "EPERM", "ENOENT", "ESRCH", "EINTR", "EIO", "ENXIO", "E2BIG", "ENOEXEC", "EBADF", "ECHILD", "EAGAIN",
    "ENOMEM", "EACCES", "EFAULT", "ENOTBLK", "EBUSY", "EEXIST", "EXDEV", "ENODEV", "ENOTDIR", "EISDIR", "EINVAL",
    "ENFILE", "EMFILE", "ENOTTY", "ETXTBSY", "EFBIG", "ENOSPC", "ESPIPE", "EROFS", "EMLINK", "EPIPE", "EDOM",
    "ERANGE", "EDEADLK", "ENAMETOOLONG", "ENOLCK", "ENOSYS", "ENOTEMPTY", "ELOOP", "E41", "ENOMSG", "EIDRM", "ECHRNG",
    "EL2NSYNC", "EL3HLT", "EL3RST", "ELNRNG", "EUNATCH", "ENOCSI", "EL2HLT", "EBADE", "EBADR", "EXFULL", "ENOANO",
    "EBADRQC", "EBADSLT", "E58", "EBFONT", "ENOSTR", "ENODATA", "ETIME", "ENOSR", "ENONET", "ENOPKG", "EREMOTE",
    "ENOLINK", "EADV", "ESRMNT", "ECOMM", "EPROTO", "EMULTIHOP", "EDOTDOT", "EBADMSG", "EOVERFLOW", "ENOTUNIQ",
    "EBADFD", "EREMCHG", "ELIBACC", "ELIBBAD", "ELIBSCN", "ELIBMAX", "ELIBEXEC", "EILSEQ", "ERESTART", "ESTRPIPE",
    "EUSERS", "ENOTSOCK", "EDESTADDRREQ", "EMSGSIZE", "EPROTOTYPE", "ENOPROTOOPT", "EPROTONOSUPPORT",
    "ESOCKTNOSUPPORT", "EOPNOTSUPP", "EPFNOSUPPORT", "EAFNOSUPPORT", "EADDRINUSE", "EADDRNOTAVAIL", "ENETDOWN",
    "ENETUNREACH", "ENETRESET", "ECONNABORTED", "ECONNRESET", "ENOBUFS", "EISCONN", "ENOTCONN", "ESHUTDOWN",
    "ETOOMANYREFS", "ETIMEDOUT", "ECONNREFUSED", "EHOSTDOWN", "EHOSTUNREACH", "EALREADY", "EINPROGRESS", "ESTALE",
    "EUCLEAN", "ENOTNAM", "ENAVAIL", "EISNAM", "EREMOTEIO", "EDQUOT", "ENOMEDIUM", "EMEDIUMTYPE", "ECANCELED",
    "ENOKEY", "EKEYEXPIRED", "EKEYREVOKED", "EKEYREJECTED", "EOWNERDEAD", "ENOTRECOVERABLE", "ERFKILL",
    // clang-format on
};

const char *UError::Name(int code) { return code < 0 || code > kLastCode ? "UNKNOWN" : sErrorCode[code]; }

USysLog gSysLog;

time_t USysLog::m_tLastTime = 0;
bool USysLog::m_bEnable = false;

USysLog::USysLog() { open(__progname); }

USysLog::~USysLog() { close(); }

void USysLog::open(const char *ident) { openlog(ident, LOG_PID | LOG_PERROR, LOG_USER); }

void USysLog::close() { closelog(); }

void USysLog::Write(Level level, const char *format, ...) {
    va_list values;
    va_start(values, format);
    vsyslog(static_cast<int>(level) | LOG_USER, format, values);
    va_end(values);
}

void USysLog::debug(const char *file, int line, const char *function, const char *format, ...) {
    const time_t now = time(nullptr);
    if (now > m_tLastTime + kSwitchLookSeconds) {
        char path[kSwitchPathSize];
        std::snprintf(path, sizeof path, "%s.log", __progname_full);
        struct stat64 status;
        m_tLastTime = now;
        m_bEnable = stat64(path, &status) == 0;
    }
    if (!m_bEnable)
        return;
    char composed[kMessageSize] = {};
    const int length = std::snprintf(composed, sizeof composed, "%s(%d):%s()\t\t%s", file, line, function, format);
    if (length >= static_cast<int>(sizeof composed))
        DropLastConversion(composed);
    va_list values;
    va_start(values, format);
    vsyslog(LOG_USER | LOG_DEBUG, composed, values);
    va_end(values);
}

// The reports omit two frames, this one and their own, so both must exist.
OWN_FRAME void USysLog::PrintStackTrace(int skip) {
    void *frames[kMaxFrames] = {};
    const int count = backtrace(frames, kMaxFrames);
    const std::unique_ptr<char *, decltype(&std::free)> lines(backtrace_symbols(frames, count), &std::free);
    if (lines == nullptr) {
        Write(Error, "No Stack Trace.\n");
        return;
    }
    Write(Error, "Stack Trace:\n");
    for (int i = 0; i < count; ++i)
        WriteFrame(lines.get()[i], skip);
}

OWN_FRAME int USysLog::error(const char *file, int line, const char *function, int code) {
    if (code == 0)
        return 0;
    Write(Error, "%s(%d):%s()\t[%s(%d)] %s\n", file, line, function, UError::Name(code), code, strerror(code));
    PrintStackTrace(2);
    return code;
}

OWN_FRAME int USysLog::error(const char *file, int line, const char *function, int code, const char *format, ...) {
    char message[kMessageSize] = {};
    va_list values;
    va_start(values, format);
    std::vsnprintf(message, sizeof message, format, values);
    va_end(values);
    if (code == 0)
        return 0;
    Write(Error, "%s(%d):%s()\t[%s(%d)] %s\n", file, line, function, UError::Name(code), code, message);
    PrintStackTrace(2);
    return code;
}

OWN_FRAME void USysLog::error(const char *file, int line, const char *function, const char *format, ...) {
    char message[kMessageSize] = {};
    va_list values;
    va_start(values, format);
    std::vsnprintf(message, sizeof message, format, values);
    va_end(values);
    Write(Error, "%s(%d):%s()\t[%s]\n", file, line, function, message);
    PrintStackTrace(2);
}

int UConsoleLog::error(const char *file, int line, const char *function, int code) {
    return error(file, line, function, code, strerror(code));
}

int UConsoleLog::error(const char *file, int line, const char *function, int code, const char *message) {
    if (code == 0)
        return 0;
    fprintf(stderr, "%s(%d):%s()\t\t[%s(%d)] %s\n", file, line, function, UError::Name(code), code, message);
    return code;
}

void UConsoleLog::write(const char *format, ...) {
    fprintf(stderr, "%s[%d]: ", __progname, static_cast<int>(getpid()));
    va_list values;
    va_start(values, format);
    vfprintf(stderr, format, values);
    va_end(values);
    fputc('\n', stderr);
}
