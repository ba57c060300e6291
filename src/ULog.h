#pragma once

#include <ctime>

/// Defined by libc: the name by which the program was started, after its last slash and in full.
extern "C" {
extern const char *__progname;      // NOLINT(bugprone-reserved-identifier)
extern const char *__progname_full; // NOLINT(bugprone-reserved-identifier)
}

/// Names of error numbers.
class UError {
public:
    static constexpr int kLastCode = 132;

    /// The errno macro's name by number; 0 is "SUCCESS"; "E41" and "E58" are unused numbers.
    static const char *const sErrorCode[kLastCode + 1];

    /// @return the name of a code; "UNKNOWN" for a code outside the table, negative codes included.
    static const char *Name(int code);
};

/// The system log, on facility LOG_USER. All messages also go to standard error.
/// Texts longer than the buffers of this class are cut. Not thread-safe.
class USysLog {
public:
    /// A syslog priority.
    enum Level { Error = 3, Warning = 4, Notice = 5, Info = 6, Debug = 7 };

    /// Opens the log under the program's short name; the destructor closes it.
    USysLog();
    virtual ~USysLog();

    /// Opens the process-wide log under another name, which must stay valid until it is closed.
    static void open(const char *ident);
    static void close();

    /// Writes one message; the format contains the line end.
    static void Write(Level level, const char *format, ...) __attribute__((format(printf, 2, 3)));

    /// Writes one debug message if the switch file exists: the program's full path plus ".log".
    /// The file is checked at most every 6 seconds. `file` and `function` must hold no '%'.
    static void debug(const char *file, int line, const char *function, const char *format, ...)
        __attribute__((format(printf, 4, 5)));

    /// Writes the stack of the caller, 80 frames at most.
    /// @param skip number of frames to omit from the top; only frames whose names can be demangled count.
    static void PrintStackTrace(int skip);

    /// Report an errno value with its name and text, or with the caller's text of up to 255 characters,
    /// followed by the stack. A code of 0 writes nothing.
    /// @return the code.
    static int error(const char *file, int line, const char *function, int code);
    static int error(const char *file, int line, const char *function, int code, const char *format, ...)
        __attribute__((format(printf, 5, 6)));

    /// Reports a failure without a code: a line and the stack.
    static void error(const char *file, int line, const char *function, const char *format, ...)
        __attribute__((format(printf, 4, 5)));

private:
    static time_t m_tLastTime;
    static bool m_bEnable;
};

/// Its constructor opens the log before main begins.
extern USysLog gSysLog;

/// Error reports on standard error, without a stack.
class UConsoleLog {
public:
    UConsoleLog() {}
    virtual ~UConsoleLog() {}

    /// Report an errno value with its text, or with a plain message. A code of 0 writes nothing.
    /// @return the code.
    static int error(const char *file, int line, const char *function, int code);
    static int error(const char *file, int line, const char *function, int code, const char *message);

    /// Writes one line that begins with the program's name and process id; the line end is added.
    static void write(const char *format, ...) __attribute__((format(printf, 1, 2)));
};
