#include "mtd/RunSteps.h"

#include "chip/Hamming.h"
#include "mtd/Requests.h"

#include <cstring>

namespace {

/// What a step begins with. The data and OOB bytes of a program follow, filled up to whole words.
struct Head {
    std::uint32_t size; ///< of the whole step in bytes
    RunStep::Kind kind;
    std::uint8_t isByProgram;
    std::uint8_t withEcc;
    std::uint8_t parts; ///< kData, kOob, kBytes
    std::uint32_t place;
    std::uint32_t column;
    std::uint32_t length;
    std::uint32_t oobLength;
    std::uint64_t hash;
};
constexpr std::uint8_t kData = 1;
constexpr std::uint8_t kOob = 2;
constexpr std::uint8_t kBytes = 4; ///< the bytes follow
constexpr std::size_t kWord = sizeof(std::uint64_t);
static_assert(sizeof(Head) % kWord == 0);

std::size_t WholeWords(std::size_t length) { return (length + kWord - 1) / kWord * kWord; }

/// @return whether a step is one of a request that there is, or lies on a chip.
bool IsOnChip(const Head &head, const NandGeometry &geometry) {
    const bool isWholeSteps = head.column % Hamming::kStep == 0 && head.length % Hamming::kStep == 0;
    switch (head.kind) {
    case RunStep::Kind::Request:
        return head.place < kRequestKinds;
    case RunStep::Kind::Read:
    case RunStep::Kind::Program:
        return head.place < geometry.Pages() && head.column <= geometry.pageSize &&
               head.length <= geometry.pageSize - head.column && head.oobLength <= geometry.oobSize &&
               (head.withEcc == 0 || isWholeSteps);
    case RunStep::Kind::AskBad:
    case RunStep::Kind::Erase:
    case RunStep::Kind::MarkBad:
        return head.place < geometry.Blocks();
    }
    return false;
}

} // namespace

std::vector<std::uint8_t> WriteStep(RunStep::Kind kind, bool isByProgram, std::uint32_t place,
                                    const NandChip::PageProgram *program, bool keepsBytes) {
    Head head = {};
    head.kind = kind;
    head.isByProgram = isByProgram ? 1 : 0;
    head.place = place;
    std::vector<std::uint8_t> step(sizeof head);
    if (program != nullptr) {
        head.withEcc = program->withEcc ? 1 : 0;
        head.column = program->column;
        head.length = program->data != nullptr ? program->length : 0;
        head.oobLength = program->oob != nullptr ? program->oobLength : 0;
        head.parts = static_cast<std::uint8_t>((program->data != nullptr ? kData : 0) |
                                               (program->oob != nullptr ? kOob : 0) | (keepsBytes ? kBytes : 0));
        const std::uint64_t hashes[] = {head.length == 0 ? 0 : HashBytes(program->data, head.length),
                                        head.oobLength == 0 ? 0 : HashBytes(program->oob, head.oobLength),
                                        std::uint64_t{head.column} << 1 | head.withEcc};
        head.hash = HashBytes(reinterpret_cast<const std::uint8_t *>(hashes), sizeof hashes);
        if (keepsBytes) {
            step.insert(step.end(), program->data, program->data + head.length);
            step.insert(step.end(), program->oob, program->oob + head.oobLength);
            step.resize(WholeWords(step.size()));
        }
    }
    head.size = static_cast<std::uint32_t>(step.size());
    std::memcpy(step.data(), &head, sizeof head);
    return step;
}

bool ReadSteps(const std::uint8_t *bytes, std::size_t length, const NandGeometry &geometry,
               std::vector<RunStep> &steps) {
    steps.clear();
    for (std::size_t at = 0; at < length;) {
        Head head;
        if (length - at < sizeof head)
            return false;
        std::memcpy(&head, bytes + at, sizeof head);
        const bool hasBytes = (head.parts & kBytes) != 0;
        const std::size_t size = sizeof head + (hasBytes ? std::size_t{head.length} + head.oobLength : 0);
        // A process that was killed while it wrote a step leaves zeros.
        if (head.size != WholeWords(size) || head.size > length - at || !IsOnChip(head, geometry))
            return false;
        RunStep step = {head.kind, head.isByProgram != 0, head.place, head.hash, {}};
        step.program.column = head.column;
        step.program.length = head.length;
        step.program.oobLength = head.oobLength;
        step.program.withEcc = head.withEcc != 0;
        const std::uint8_t *data = bytes + at + sizeof head;
        if (hasBytes && (head.parts & kData) != 0)
            step.program.data = data;
        if (hasBytes && (head.parts & kOob) != 0)
            step.program.oob = data + head.length;
        steps.push_back(step);
        at += head.size;
    }
    return true;
}
