#pragma once

#include <ctime>

/// libc's own: the name by which the program was started, behind its last slash and in full.
extern "C" {
extern const char *__progname;      // NOLINT(bugprone-reserved-identifier)
extern const char *__progname_full; // NOLINT(bugprone-reserved-identifier)
}

/// Names of error numbers.
class UError {
public:
    static constexpr int kLastCode = 132;

    /// The errno macro's own name by number; 0 is "SUCCESS", the two numbers that Linux leaves free are "E41", "E58".
    static const char *const sErrorCode[kLastCode + 1];

    /// @return the name of a code; "UNKNOWN" for one that is not in the table, negative ones included.
    static const char *Name(int code);
};

/// The system log, on facility LOG_USER. All messages go to standard error too.
/// Texts longer than the buffers of this class are cut. One thread, no lock.
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

    /// Writes one message; the format brings its own line end.
    static void Write(Level level, const char *format, ...) __attribute__((format(printf, 2, 3)));

    /// Writes one debug message while the switch file exists: the program's full path with ".log" behind it.
    /// The file is looked for at most every 6 seconds. `file` and `function` must hold no '%'.
    static void debug(const char *file, int line, const char *function, const char *format, ...)
        __attribute__((format(printf, 4, 5)));

    /// Writes the stack of the caller, 80 frames at most.
    /// @param skip how many of the frames whose names can be demangled are left out, from the top.
    static void PrintStackTrace(int skip);

    /// Report an errno value with its name and text, or with the caller's text of up to 255 characters,
    /// and the stack behind it. A code of 0 writes nothing.
    /// @return the code.
    static int error(const char *file, int line, const char *function, int code);
    static int error(const char *file, int line, const char *function, int code, const char *format, ...)
        __attribute__((format(printf, 5, 6)));

    /// Reports a failure that has no code: always a line and the stack.
    static void error(const char *file, int line, const char *function, const char *format, ...)
        __attribute__((format(printf, 4, 5)));

private:
    static time_t m_tLastTime;
    static bool m_bEnable;
};

/// Building it opens the log, before main begins.
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

    /// Writes one line with the program's name and process id in front; the line end is added.
    static void write(const char *format, ...) __attribute__((format(printf, 1, 2)));
};
