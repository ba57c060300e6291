#pragma once

#include <dlfcn.h>

/// Marks a function that programs find in front of libc's.
#define INTERPOSED extern "C" __attribute__((visibility("default")))

/// A function of libc, or of a sanitizer in front of it, that comes after ours.
template <typename Function> class Next {
public:
    explicit constexpr Next(const char *name) : m_name(name) {}
    template <typename... Arguments> auto operator()(Arguments... arguments) {
        if (m_function == nullptr)
            m_function = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, m_name));
        return m_function(arguments...);
    }

private:
    const char *m_name;
    Function *m_function = nullptr;
};
