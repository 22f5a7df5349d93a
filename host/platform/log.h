/*
 * The reference host's log: spdlog behind the contract's kvlog, with a threshold and class levels that can change
 * while the node runs.
 */
#pragma once

#include <array>
#include <cstdint>
#include <nasctrl/host/log.h>
#include <string>
#include <string_view>

// One line in the name of the host itself.
#define HOST_LOG(level, ...) kvlog(host::kLogModule, (level), __FILE_NAME__, __LINE__, __func__, 0, __VA_ARGS__)

namespace host {

constexpr uint32_t kLogModule = 700;
constexpr uint32_t kStorageLogModule = 701; // the storage-side service, wherever it runs
constexpr uint32_t kLogClasses = 4;
constexpr uint32_t kMaxLogLevel = 7;

struct LogSettings {
    std::string file;                      // appended to; empty = none
    bool console = true;                   // standard error
    uint32_t threshold = NASCTRL_LOG_INFO; // lines above this level are dropped
    std::array<uint32_t, kLogClasses> classLevels = {6, 4, 4, 3};
};

// Throws std::runtime_error with one clear line when the file cannot be opened.
void openLog(const LogSettings &settings);
void flushLog();

// From any thread, at any time. Levels are 0 to kMaxLogLevel, classes 0 to kLogClasses - 1.
uint32_t logThreshold();
void setLogThreshold(uint32_t level);
uint32_t logClassLevel(uint32_t logClass);
void setLogClassLevel(uint32_t logClass, uint32_t level);

void keepOwnLine(std::string_view text); // for the onlooker below, if this thread has one

// Looks on at what this thread writes to the log, for a call whose failure the log alone explains. One at a time.
class OwnLogLines {
public:
    OwnLogLines();
    ~OwnLogLines();
    OwnLogLines(const OwnLogLines &) = delete;
    OwnLogLines &operator=(const OwnLogLines &) = delete;
    std::string last() const; // the text of the newest line; empty when there is none

private:
    std::string last_;
    friend void keepOwnLine(std::string_view text);
};

// Lines written since the start of the process, by level.
std::array<uint64_t, kMaxLogLevel + 1> logLineCounts();

} // namespace host
