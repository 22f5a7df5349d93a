// The VPC file: whatever is in it, it loads, and what was loaded comes back from a file that it is saved to.
#include "vpc_table.h"

#include <fake_host.h>
#include <vpc_file.h>

namespace {

using fuzz::require;

constexpr size_t kMostSaved = 15599; // what does not fit the library's buffer is cut

size_t savedLength(const std::vector<std::string> &records)
{
    size_t length = 0;
    for (const std::string &record : records) {
        length += record.size() + 2;
    }
    return length;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const VpcFile file;
    fake::reset();
    file.write({data, data + size});
    NasClearVpcInfo();
    NasVpcLoad();
    const std::vector<std::string> loaded = fuzz::usedRecords();
    file.remove();
    NasVpcSave();
    require(file.read().size() == std::min(savedLength(loaded), kMostSaved));
    NasClearVpcInfo();
    NasVpcLoad();
    require(savedLength(loaded) > kMostSaved || fuzz::usedRecords() == loaded);
    require(fake::liveBlocks() == 0);
    return 0;
}
