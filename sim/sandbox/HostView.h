#pragma once

#include <sys/types.h>

/// What a sandbox shows of this machine. All of it is read-only and locked; everything else in a sandbox is its own and
/// in memory.

/// Folders with programs and libraries, with what is mounted below them. Links among them (merged /usr) stay links.
/// "/bin" is shown too, with the sandbox's changes in memory.
constexpr const char *kProgramFolders[] = {"usr", "lib", "lib32", "lib64", "libx32", "sbin"};

/// Files of /etc that programs need to run, copied; of users there are names and numbers alone.
constexpr const char *kEtcFiles[] = {"passwd",   "group",      "nsswitch.conf", "host.conf",      "protocols",
                                     "services", "localtime",  "timezone",      "ld.so.conf",     "ld.so.cache",
                                     "inputrc",  "mime.types", "magic",         "debian_version", "os-release"};
/// Folders of /etc that hold nothing but links to programs, paths of libraries and descriptions of terminals.
constexpr const char *kEtcFolders[] = {"alternatives", "ld.so.conf.d", "terminfo"};

/// Device nodes that reach nothing but the process that opens them.
constexpr const char *kNodes[] = {"null", "zero", "full", "random", "urandom", "tty"};

/// Entries of /proc besides the processes'. All others are covered by an empty file or folder.
constexpr const char *kProcEntries[] = {"cpuinfo", "filesystems", "loadavg", "meminfo",     "mounts", "net",
                                        "self",    "stat",        "uptime",  "thread-self", "version"};

/// Links and folders of the sandbox's own.
constexpr struct {
    const char *name;
    const char *target;
} kLinks[] = {{"/dev/fd", "/proc/self/fd"},
              {"/dev/stdin", "/proc/self/fd/0"},
              {"/dev/stdout", "/proc/self/fd/1"},
              {"/dev/stderr", "/proc/self/fd/2"}};

constexpr struct {
    const char *path;
    mode_t mode;
} kFolders[] = {{"/dev", 0755}, {"/sys", 0755}, {"/etc", 0755}, {"/tmp", 01777}, {"/run", 0755},
                {"/app", 0755}, {"/opt", 0755}, {"/var", 0755}, {"/root", 0700}};
