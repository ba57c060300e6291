#pragma once

#include <cstdlib>
#include <memory>

/// The readable text of a mangled type name, as typeid(x).name() gives it. Can be moved, not copied.
class TypeName {
public:
    TypeName(const char *name);

    /// @return the text, which lives as long as the object; null when the name can't be demangled.
    operator const char *() const { return m_pText.get(); }

private:
    struct Free {
        void operator()(char *text) const { std::free(text); }
    };
    std::unique_ptr<char, Free> m_pText;
};

/// The class in a function's signature, "int Outer::Inner::f()" gives "Outer": from the last blank in front of the
/// first "::", or from the start, up to that "::". At most 127 characters, the rest is cut.
class ClassName {
public:
    ClassName(const char *signature);
    virtual ~ClassName() {}

    /// @return the name, which lives as long as the object; empty when the signature holds no "::".
    operator const char *() const { return m_sName; }

private:
    char m_sName[128];
};
