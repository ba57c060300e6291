#include "mtd/Sysfs.h"

#include "base/Text.h"

#include <mtd/mtd-user.h>
#include <utility>

namespace {

std::string Text(std::string text) { return text; }
std::string Text(const char *text) { return text; }
std::string Text(std::uint64_t number) { return std::to_string(number); }

} // namespace

std::string SysfsText(std::size_t file, const SimDevice &device, const NandChip &chip, const MtdCounters &counters) {
    std::size_t row = 0;
#define SYSFS(name, isLive, content)                                                                                   \
    if (file == row++)                                                                                                 \
        return Text(content) + "\n";
#include "mtd/Sysfs.def"
#undef SYSFS
    return "";
}

bool IsLiveSysfs(std::size_t file) {
    constexpr bool kIsLive[] = {
#define SYSFS(name, isLive, content) isLive,
#include "mtd/Sysfs.def"
#undef SYSFS
    };
    return kIsLive[file];
}
