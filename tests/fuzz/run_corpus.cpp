/*
 * Runs a fuzz target over its seeds and over mutations of each, the same ones at every run. Usage: NAME_corpus FOLDER
 *
 * Each seed has a process of its own, so that whatever ends it, the parent names the seed and the mutation.
 */
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

using Bytes = std::vector<uint8_t>;

// One thread runs a target, so that the thread sanitizer finds nothing more in it, and takes ten times as long.
#ifdef __SANITIZE_THREAD__
constexpr unsigned kMutations = 30;
#else
constexpr unsigned kMutations = 300;
#endif
constexpr uint8_t kEdges[] = {0, 1, 0x7f, 0x80, 0xff, '\n', '-', '9'};

std::vector<std::filesystem::path> filesOf(const std::filesystem::path &folder)
{
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

Bytes contentOf(const std::filesystem::path &file)
{
    std::ifstream stream(file, std::ios::binary);
    return Bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

ptrdiff_t below(std::mt19937 &random, size_t bound)
{
    return bound == 0 ? 0 : static_cast<ptrdiff_t>(random() % bound);
}

void mutate(Bytes &bytes, std::mt19937 &random)
{
    const auto at = bytes.begin() + below(random, bytes.size());
    const auto end = at + below(random, static_cast<size_t>(bytes.end() - at) + 1);
    switch (bytes.empty() ? 0 : random() % 6) {
    case 0:
        bytes.insert(at, kEdges[random() % std::size(kEdges)]);
        break;
    case 1:
        *at = static_cast<uint8_t>(*at ^ (1U << (random() % 8)));
        break;
    case 2:
        *at = kEdges[random() % std::size(kEdges)];
        break;
    case 3:
        bytes.erase(at, end);
        break;
    case 4: {
        const Bytes copy(at, end);
        bytes.insert(at, copy.begin(), copy.end());
        break;
    }
    default:
        bytes.erase(at, bytes.end());
    }
}

// In a block of exactly its size, so that a sanitizer sees the first byte read past it.
void runTarget(const Bytes &bytes)
{
    const Bytes exact(bytes);
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

void runSeed(const std::filesystem::path &file, std::atomic<unsigned> &mutation)
{
    const Bytes seed = contentOf(file);
    std::mt19937 random(1);
    runTarget(seed);
    for (mutation = 1; mutation <= kMutations; ++mutation) {
        Bytes bytes = seed;
        for (auto steps = 1 + random() % 4; steps > 0; --steps) {
            mutate(bytes, random);
        }
        runTarget(bytes);
    }
}

bool seedPasses(const std::filesystem::path &file)
{
    void *shared =
        mmap(nullptr, sizeof(std::atomic<unsigned>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        std::perror("mmap");
        return false;
    }
    auto *mutation = new (shared) std::atomic<unsigned>(0);
    const pid_t child = fork();
    if (child == 0) {
        runSeed(file, *mutation);
        std::exit(0); // not _exit: leaks are looked for at the end
    }
    int status = -1;
    const bool passed = waitpid(child, &status, 0) == child && status == 0;
    if (!passed) {
        std::fprintf(stderr, "%s: failed, mutation %u (0 = the file itself), wait status %d\n", file.c_str(),
                     mutation->load(), status);
    }
    munmap(shared, sizeof(std::atomic<unsigned>));
    return passed;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2 || !std::filesystem::is_directory(argv[1])) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    const auto files = filesOf(argv[1]);
    if (files.empty()) {
        std::fprintf(stderr, "%s: no seeds\n", argv[1]);
        return 1;
    }
    const auto failed = std::count_if(files.begin(), files.end(), [](const auto &file) { return !seedPasses(file); });
    std::printf("%zu seeds, %u mutations of each, %td failed\n", files.size(), kMutations, failed);
    return failed == 0 ? 0 : 1;
}
