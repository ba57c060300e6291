#pragma once

#include <cstdlib>
#include <memory>

/// The demangled text of a type name such as typeid(x).name(). Can be moved, not copied.
class TypeName {
public:
    TypeName(const char *name);

    /// @return the text, which lives as long as the object; null when the name cannot be demangled.
    operator const char *() const { return m_pText.get(); }

private:
    struct Free {
        void operator()(char *text) const { std::free(text); }
    };
    std::unique_ptr<char, Free> m_pText;
};

/// The class in a function's signature; "int Outer::Inner::f()" gives "Outer": from the last blank before the first
/// "::", or from the start, up to that "::". Cut to 127 characters.
class ClassName {
public:
    ClassName(const char *signature);
    virtual ~ClassName() {}

    /// @return the name, which lives as long as the object; empty when the signature contains no "::".
    operator const char *() const { return m_sName; }

private:
    char m_sName[128];
};
