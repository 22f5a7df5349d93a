#include "elf_object.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gelf.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace hostcheck {
namespace {

struct CloseFile {
    using pointer = int *;
    void operator()(const int *descriptor) const { close(*descriptor); }
};

struct EndElf {
    void operator()(Elf *elf) const { elf_end(elf); }
};

bool isRegularFile(int descriptor)
{
    struct stat status = {};
    return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

// A global function that is defined here; one that the linker hid has become local.
bool isDefinedFunction(const GElf_Sym &symbol)
{
    const auto type = GELF_ST_TYPE(symbol.st_info);
    return symbol.st_shndx != SHN_UNDEF && (type == STT_FUNC || type == STT_GNU_IFUNC);
}

void collectFunctions(Elf *elf, Elf_Scn *section, const GElf_Shdr &header, Names &names)
{
    Elf_Data *data = elf_getdata(section, nullptr);
    if (data == nullptr || header.sh_entsize == 0) {
        return;
    }
    const auto count = static_cast<int>(data->d_size / header.sh_entsize);
    for (int i = 0; i < count; ++i) {
        GElf_Sym symbol = {};
        if (gelf_getsym(data, i, &symbol) == nullptr || !isDefinedFunction(symbol)) {
            continue;
        }
        const char *name = elf_strptr(elf, header.sh_link, symbol.st_name);
        if (name != nullptr) {
            names.insert(name);
        }
    }
}

void readSymbols(Elf *elf, ElfObject &object)
{
    for (Elf_Scn *section = elf_nextscn(elf, nullptr); section != nullptr; section = elf_nextscn(elf, section)) {
        GElf_Shdr header = {};
        if (gelf_getshdr(section, &header) == nullptr) {
            continue;
        }
        if (header.sh_type == SHT_DYNSYM) {
            collectFunctions(elf, section, header, object.exportedFunctions);
        } else if (header.sh_type == SHT_SYMTAB) {
            collectFunctions(elf, section, header, object.unexportedFunctions);
        }
    }
    for (const std::string &name : object.exportedFunctions) {
        object.unexportedFunctions.erase(name);
    }
}

bool isExecutable(Elf *elf, const GElf_Ehdr &header)
{
    if (header.e_type == ET_EXEC) {
        return true;
    }
    for (Elf_Scn *section = elf_nextscn(elf, nullptr); section != nullptr; section = elf_nextscn(elf, section)) {
        GElf_Shdr table = {};
        Elf_Data *data = nullptr;
        if (gelf_getshdr(section, &table) == nullptr || table.sh_type != SHT_DYNAMIC ||
            (data = elf_getdata(section, nullptr)) == nullptr) {
            continue;
        }
        GElf_Dyn entry = {};
        for (int i = 0; gelf_getdyn(data, i, &entry) != nullptr && entry.d_tag != DT_NULL; ++i) {
            if (entry.d_tag == DT_FLAGS_1) {
                return (entry.d_un.d_val & DF_1_PIE) != 0;
            }
        }
    }
    return false;
}

bool namesALoader(Elf *elf)
{
    size_t count = 0;
    if (elf_getphdrnum(elf, &count) != 0) {
        return false;
    }
    for (size_t i = 0; i < count; ++i) {
        GElf_Phdr segment = {};
        if (gelf_getphdr(elf, static_cast<int>(i), &segment) != nullptr && segment.p_type == PT_INTERP) {
            return true;
        }
    }
    return false;
}

} // namespace

ElfObject readElfObject(const std::string &path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        throw UnreadableFile(path + ": " + std::strerror(errno));
    }
    const std::unique_ptr<int, CloseFile> closer(const_cast<int *>(&descriptor));
    if (!isRegularFile(descriptor)) {
        throw UnreadableFile(path + ": not a file");
    }
    elf_version(EV_CURRENT);
    const std::unique_ptr<Elf, EndElf> elf(elf_begin(descriptor, ELF_C_READ, nullptr));
    GElf_Ehdr header = {};
    if (elf == nullptr || elf_kind(elf.get()) != ELF_K_ELF || gelf_getehdr(elf.get(), &header) == nullptr ||
        (header.e_type != ET_EXEC && header.e_type != ET_DYN)) {
        throw UnreadableFile(path + ": neither an executable nor a shared library");
    }
    ElfObject object;
    object.elfClass = gelf_getclass(elf.get());
    object.machine = header.e_machine;
    object.isStatic = isExecutable(elf.get(), header) && !namesALoader(elf.get());
    readSymbols(elf.get(), object);
    return object;
}

} // namespace hostcheck
