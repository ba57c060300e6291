#include "mtd/Requests.h"

#include "base/Text.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <iterator>
#include <linux/ioctl.h>
#include <mtd/mtd-user.h>

namespace {

const char *NullOrSet(std::uint64_t address) { return address == 0 ? "null" : "set"; }

std::string NoFields(const void * /*argument*/) { return ""; }

template <typename Request> std::string PageFields(const void *argument) {
    const auto *request = static_cast<const Request *>(argument);
    return FormatText(" start=0x%" PRIx64 " len=%" PRIu64 " ooblen=%" PRIu64 " data=%s oob=%s mode=%u",
                      std::uint64_t{request->start}, std::uint64_t{request->len}, std::uint64_t{request->ooblen},
                      NullOrSet(request->usr_data), NullOrSet(request->usr_oob), static_cast<unsigned>(request->mode));
}

std::string BlockFields(const void *argument) {
    return FormatText(" offset=0x%" PRIx64, static_cast<std::uint64_t>(*static_cast<const loff_t *>(argument)));
}

template <typename Range> std::string RangeFields(const void *argument) {
    const auto *range = static_cast<const Range *>(argument);
    return FormatText(" start=0x%" PRIx64 " length=0x%" PRIx64, std::uint64_t{range->start},
                      std::uint64_t{range->length});
}

std::string OobText(std::uint64_t start, std::uint32_t length, bool isNull) {
    return FormatText(" start=0x%" PRIx64 " length=%" PRIu32 " oob=%s", start, length, NullOrSet(isNull ? 0 : 1));
}

std::string Oob64Fields(const void *argument) {
    const auto *request = static_cast<const mtd_oob_buf64 *>(argument);
    return OobText(request->start, request->length, request->usr_ptr == 0);
}

std::string OldOobFields(const void *argument) {
    const auto *request = static_cast<const mtd_oob_buf *>(argument);
    return OobText(request->start, request->length, request->ptr == nullptr);
}

std::string RegionFields(const void *argument) {
    return FormatText(" index=%" PRIu32, static_cast<const region_info_user *>(argument)->regionindex);
}

std::string ModeField(const void *argument) {
    return FormatText(" mode=%" PRIuPTR, reinterpret_cast<std::uintptr_t>(argument));
}

constexpr RequestRow kRows[] = {
#define REQUEST(kind, name, number, error, describe) {name, number, error, describe},
#include "mtd/Requests.def"
#undef REQUEST
};

template <typename Test> bool Find(RequestKind &kind, Test test) {
    const auto *found = std::find_if(std::begin(kRows), std::end(kRows), test);
    if (found == std::end(kRows))
        return false;
    kind = static_cast<RequestKind>(found - std::begin(kRows));
    return true;
}

} // namespace

const RequestRow &RowOf(RequestKind kind) { return kRows[static_cast<std::size_t>(kind)]; }

bool FindRequest(unsigned long number, RequestKind &kind) {
    return Find(kind, [number](const RequestRow &row) { return row.number == number && number != 0; });
}

bool FindRequest(const std::string &name, RequestKind &kind) {
    return Find(kind, [&name](const RequestRow &row) { return row.name == name; });
}
