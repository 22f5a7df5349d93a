// The commands of module cloud_adapt, one after the other, with any text and any room.
#include "vpc_table.h"

#include <fake_host.h>
#include <nasctrl/cloud.h>
#include <vpc_file.h>

namespace {

using fuzz::require;

constexpr int32_t (*kHandlers[])(char *buf, uint32_t size) = {
    NasCloudSetVpcInfo, NasCloudGetVpcInfo, NasCloudClearVpcInfo, NasCloudGetVpcInfoByIP,
    NasCloudCheckVpcID, NasCloudSaveVpc,    NasCloudReloadVpc,
};
constexpr size_t kMostTable = 16384; // more than a full table prints

// The room is for the text at least, in a block of exactly its size, so that a sanitizer sees a step outside.
int32_t run(uint8_t handler, const std::string &text, size_t extraRoom)
{
    std::vector<char> buf(strlen(text.c_str()) + 1 + extraRoom);
    strcpy(buf.data(), text.c_str());
    const int32_t result = kHandlers[handler % std::size(kHandlers)](buf.data(), static_cast<uint32_t>(buf.size()));
    require(result >= 0 && static_cast<size_t>(result) < buf.size());
    require(result == 0 || strlen(buf.data()) == static_cast<size_t>(result));
    return result;
}

} // namespace

// Each command: one byte for which, one for the length of its text, one for the room behind it, and the text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const VpcFile file;
    fake::reset();
    file.remove();
    NasClearVpcInfo();
    for (fuzz::Input input(data, size); !input.empty();) {
        const uint8_t handler = input.byte();
        const size_t length = input.byte();
        const size_t room = input.byte();
        const size_t before = fuzz::usedRecords().size();
        const int32_t result = run(handler, input.bytes(length), room == 255 ? kMostTable : room);
        const size_t after = fuzz::usedRecords().size();
        const bool sets = kHandlers[handler % std::size(kHandlers)] == NasCloudSetVpcInfo;
        require(!sets || after == before || (after == before + 1 && result == 0));
    }
    require(fake::liveBlocks() == 0);
    return 0;
}
