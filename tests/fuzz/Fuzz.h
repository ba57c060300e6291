#pragma once

#include "base/TempFolder.h"

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

/// Each file in this folder is a fuzz target: a reader of what a user or a program of an update can damage. An input is
/// what the reader takes, or parts of it. Sanitizers, time and memory limits find what no input may cause; an exception
/// other than a refusal ends the program too.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size);

/// Calls what may refuse its input with one line for people.
template <typename Call> void MayRefuse(Call call) {
    try {
        call();
    } catch (const std::runtime_error &) {
        return;
    } catch (const std::invalid_argument &) {
        return;
    }
}

/// Takes an input apart, from its start.
class Input {
public:
    Input(const std::uint8_t *bytes, std::size_t size) : m_bytes(bytes), m_size(size) {}

    std::size_t Left() const { return m_size; }

    /// @return the next byte; 0 after the end.
    std::uint8_t Byte() {
        if (m_size == 0)
            return 0;
        --m_size;
        return *m_bytes++;
    }

    /// @return the bytes up to the next zero byte, which is taken too.
    std::string Text() {
        std::string text;
        while (m_size != 0) {
            const auto byte = static_cast<char>(Byte());
            if (byte == '\0')
                break;
            text += byte;
        }
        return text;
    }

    std::vector<std::uint8_t> Rest() {
        std::vector<std::uint8_t> rest(m_bytes, m_bytes + m_size);
        m_size = 0;
        return rest;
    }

private:
    const std::uint8_t *m_bytes;
    std::size_t m_size;
};

/// The files of a target; the folder is removed at the end.
inline const TempFolder &FuzzFolder() {
    static const TempFolder folder;
    return folder;
}

inline void WriteBytes(const std::string &path, const std::vector<std::uint8_t> &bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}
