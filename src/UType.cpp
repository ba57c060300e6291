#include "UType.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <cxxabi.h>

TypeName::TypeName(const char *name) : m_pText(abi::__cxa_demangle(name, nullptr, nullptr, nullptr)) {}

ClassName::ClassName(const char *signature) : m_sName() {
    const char *end = std::strstr(signature, "::");
    if (end == nullptr)
        return;
    const char *start = end;
    while (start != signature && start[-1] != ' ')
        --start;
    std::memcpy(m_sName, start, std::min(static_cast<std::size_t>(end - start), sizeof m_sName - 1));
}
