// Views of clients as a broken cluster manager might hand them over: fields without their NULs, ids that stand twice, 0
// to 5000 entries. What the library shows, looks up and notifies must be what a model of it says.
#include <events.h>
#include <fake_host.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr size_t kAddressSize = 64;
constexpr const char *kKeys[] = {"data_ip", "ip", "", "nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn"}; // the last fills a name
constexpr const char *kParts[] = {"10.0.0.1", "@", "fd00::1", "11111111111111111111111111111111", "x"};

// The input's bytes, and a sequence that depends on all of them once they are used up.
class Source {
public:
    Source(const uint8_t *data, size_t size) : data_(data), size_(size)
    {
        for (size_t i = 0; i < size; ++i) {
            state_ = (state_ ^ data[i]) * 0x100000001B3ULL;
        }
    }
    uint8_t byte()
    {
        if (at_ < size_) {
            return data_[at_++];
        }
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<uint8_t>(state_ >> 32);
    }
    uint32_t below(uint32_t limit) { return (byte() | static_cast<uint32_t>(byte()) << 8) % limit; }
    uint64_t word()
    {
        uint64_t value = 0;
        for (int i = 0; i < 8; ++i) {
            value = value << 8 | byte();
        }
        return value;
    }
    // A field: a text of address parts that may fill it, or bytes.
    void fill(char *field, size_t width)
    {
        const uint32_t kind = below(8);
        std::string text;
        for (uint32_t parts = below(12); kind < 6 && parts > 0; --parts) {
            text += kParts[below(std::size(kParts))];
        }
        for (size_t i = 0; i < width; ++i) {
            field[i] = kind == 6 ? static_cast<char>(byte()) : kind == 7 ? 'n' : i < text.size() ? text[i] : '\0';
        }
    }

private:
    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
    uint64_t state_ = 0xCBF29CE484222325ULL;
};

struct View {
    explicit View(Source *source)
    {
        const uint32_t count = source->below(64) == 0 ? source->below(5001) : source->below(9);
        const uint32_t ids = count > 8 ? 8192 : 12;
        entries = std::vector<cm_ls_entry>(count);
        source->fill(record.dsName, sizeof record.dsName);
        source->fill(record.dsAlias, sizeof record.dsAlias);
        record.version = source->word();
        record.mgtSt = static_cast<int32_t>(source->word());
        record.lsNum = count;
        record.ls = count == 0 ? nullptr : entries.data();
        for (cm_ls_entry &entry : entries) {
            entry.lsId = source->below(ids);
            entry.rs = static_cast<int32_t>(source->below(3));
            entry.bs = static_cast<int32_t>(source->word());
            entry.role = source->byte();
            entry.mgtSt = -static_cast<int32_t>(source->byte());
            entry.sessionId = source->word();
        }
        for (size_t i = 0; i < entries.size() && i < 4; ++i) {
            fillAttributes(source, &entries[i]);
        }
    }

    static void fillAttributes(Source *source, cm_ls_entry *entry)
    {
        for (cm_attr &attr : entry->attrs) {
            const uint32_t key = source->below(std::size(kKeys) + 1);
            if (key < std::size(kKeys)) {
                memcpy(attr.name, kKeys[key], strlen(kKeys[key]));
            } else {
                source->fill(attr.name, sizeof attr.name);
            }
            source->fill(attr.value, sizeof attr.value);
            attr.valueLen = source->below(65536);
        }
    }

    std::vector<cm_ls_entry> entries;
    dpc_view record = {};
};

void require(bool holds, const char *what)
{
    if (!holds) {
        std::fprintf(stderr, "dpc_view_fuzz: %s differs\n", what);
        std::abort();
    }
}

template <size_t Width>
std::string textOf(const char (&field)[Width])
{
    return {field, strnlen(field, Width)};
}

template <typename Number>
std::string text(Number number)
{
    return std::to_string(number);
}

// ---- the view in the log

Texts shownLines(const View &view)
{
    const std::string start = "class 1 PROTOCOL: ";
    Texts lines = {start + "--ViewInfo-- begin (versoin:" + text(view.record.version) +
                   ", dsName:" + textOf(view.record.dsName) + ", dsAlias:" + textOf(view.record.dsAlias) +
                   ", mgtSt:" + text(view.record.mgtSt) + ", lsNum:" + text(view.record.lsNum) + ")."};
    for (const cm_ls_entry &entry : view.entries) {
        lines.push_back(start + "lsId:" + text(entry.lsId) + ", sessionId:" + text(entry.sessionId) +
                        ", rs:" + text(entry.rs) + ", bs:" + text(entry.bs) + ", role:" + text(entry.role) +
                        ", mgtSt:" + text(entry.mgtSt) + ".");
    }
    lines.push_back(start + "--ViewInfo-- end");
    return lines;
}

void checkShow(const View &view)
{
    fake::reset();
    NasCtrlShowViewInfo(&view.record);
    require(fake::log() == shownLines(view), "the shown view");
}

// ---- one entry's address

using Address = std::array<char, kAddressSize>;

void setAddress(Address *address, const std::string &value)
{
    address->fill('\0');
    std::copy(value.begin(), value.end(), address->begin());
}

// The second address of a double value; says whether there is one that fits.
bool secondAddress(const std::string &value, std::string *second)
{
    const std::string cut = value.substr(0, 255);
    const size_t first = cut.find_first_not_of('@');
    if (first == std::string::npos) {
        return false;
    }
    const size_t sign = cut.find('@', first);
    *second = sign == std::string::npos ? "" : cut.substr(sign + 1);
    return second->size() < kAddressSize;
}

// What the 64 bytes hold after a look-up: only their text is compared, since copies may leave what follows it alone.
Address lookedUp(const cm_ls_entry &entry, const char *key, Address address)
{
    for (const cm_attr &attr : entry.attrs) {
        if (textOf(attr.name) != key) {
            continue;
        }
        const std::string value = textOf(attr.value);
        std::string second;
        if (value.find('@') == std::string::npos) {
            setAddress(&address, value.substr(0, kAddressSize - 1));
            return address;
        }
        if (secondAddress(value, &second)) {
            setAddress(&address, second);
            return address;
        }
        address.fill('\0');
    }
    return address;
}

void checkAddresses(const View &view)
{
    for (size_t i = 0; i < view.entries.size() && i < 4; ++i) {
        // On the heap and exactly sized, so that a sanitizer sees a step outside.
        const auto entry = std::make_unique<cm_ls_entry>(view.entries[i]);
        for (const char *key : kKeys) {
            const auto out = std::make_unique<Address>();
            setAddress(out.get(), "unset");
            const Address expected = lookedUp(*entry, key, *out);
            fake::reset();
            require(NasCtrlGetAddrFromCmLs(entry.get(), out->data(), key) == 0, "the look-up's result");
            require(memchr(out->data(), '\0', kAddressSize) != nullptr, "the end of an address");
            require(strcmp(out->data(), expected.data()) == 0, "an address");
        }
    }
}

// ---- entries that left

struct Told {
    Texts calls;
    size_t cleaned = 0; // entries that both modules took
    uint32_t result = 0;
};

// failing: the how-manieth notice is refused, 0 = none.
Told lossesOf(const View &previous, const View &now, uint32_t failing)
{
    std::vector<bool> present(65536);
    for (const cm_ls_entry &entry : now.entries) {
        present[entry.lsId] = true;
    }
    Told told;
    for (const cm_ls_entry &entry : previous.entries) {
        if (present[entry.lsId]) {
            continue;
        }
        for (const char *module : {"2", "1"}) {
            told.calls.push_back("notifyCall(" + std::string(module) + ", 5, " + text(entry.lsId) + ")");
            if (told.calls.size() == failing) {
                told.result = 1;
                return told;
            }
        }
        ++told.cleaned;
    }
    return told;
}

void checkScaleDown(const View &previous, const View &now, uint32_t failing)
{
    const Told told = lossesOf(previous, now, failing);
    fake::reset();
    fake::failCall(failing);
    require(ScaleDownNotifyDlgAndFmm(&previous.record, &now.record) == told.result, "the scale-down's result");
    require(fake::calls() == told.calls, "the notices");
    require(fake::log().size() == told.cleaned + (told.result != 0 ? 1 : 0), "the scale-down's log");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Source source(data, size);
    const uint32_t failing = source.below(8) == 0 ? source.below(16) : 0;
    const View previous(&source);
    const View now(&source);
    checkShow(previous);
    checkAddresses(previous);
    checkScaleDown(previous, now, failing);
    return 0;
}
