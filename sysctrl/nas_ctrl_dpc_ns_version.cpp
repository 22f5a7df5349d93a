/*
 * The parser of compatible-version texts: bracketed numbers and ranges, such as "[1],[3-5]". No state and no lock.
 */
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <nasctrl/version_ns.h>

#include "internal/bounded.h"
#include "internal/log.h"

static_assert(offsetof(version_array, vers) == 0);
static_assert(offsetof(version_array, count) == 1024);
static_assert(sizeof(version_array) == 1028);

namespace {

constexpr int32_t kVersionsMax = 256;
constexpr size_t kBodyMax = 256;

/* The number that text begins with, its low 32 bits where it is larger; 0 when it begins with none. */
int32_t numberAt(const char *text)
{
    return static_cast<int32_t>(strtol(text, nullptr, 10));
}

/* The counter is wider than the ends, so that the last value may be the largest; a full array ends a long range. */
uint32_t addRange(const char *func, int32_t one, int32_t other, version_array *array)
{
    const int64_t last = std::max(one, other);
    for (int64_t version = std::min(one, other); version <= last; ++version) {
        const uint32_t ret = AddVerToArry(static_cast<uint32_t>(version), array);
        if (ret != NAS_OK) {
            LOG_CLASS_AS(func, 3, "NASCTRL_DPC: add ver(%d) err(%d).", static_cast<int>(version),
                         static_cast<int>(ret));
            return ret;
        }
    }
    return NAS_OK;
}

/* Text that follows the last bracket, or is all there is: told, and accepted. */
uint32_t acceptRest(const char *func, const char *text, bool anyBracket)
{
    if (anyBracket) {
        LOG_CLASS_AS(func, 3, "NASCTRL_DPC: wrong compa ver(%s) format.", text);
    } else {
        LOG_CLASS_AS(func, 3, "NASCTRL_DPC: no verlist found in brackets.");
    }
    return NAS_OK;
}

} // namespace

uint32_t AddVerToArry(uint32_t version, version_array *array)
{
    if (array == nullptr) {
        LOG_NULL("array", "NAS_INVALID", -1);
        return NAS_INVALID;
    }
    if (array->count < 0 || array->count >= kVersionsMax) {
        LOG_CLASS(3, "NASCTRL_DPC: parse out more version than MAX allowed(%d), check!!.", kVersionsMax);
        return NAS_INVALID;
    }
    array->vers[array->count++] = version;
    return NAS_OK;
}

uint32_t PickUpVersInOneBracket(const char *open, const char *close, version_array *array)
{
    char body[kBodyMax + 1] = {}; /* its last byte ends a body of the full length */
    if (open == nullptr || close == nullptr) {
        LOG_NULL(open == nullptr ? "open" : "close", "NAS_INVALID", -1);
        return NAS_INVALID;
    }
    if (close == open + 1) {
        LOG_CLASS(3, "NASCTRL_DPC: empty in Bracket.");
        return NAS_OK;
    }
    if (array == nullptr) {
        LOG_NULL("array", "NAS_INVALID", -1);
        return NAS_INVALID;
    }
    /* A close before its open is as long as no body can be, and refused like one that is too long. */
    const int ret = nas::memcpy_s(body, kBodyMax, open + 1, static_cast<size_t>(close - open - 1));
    if (ret != 0) {
        LOG_CLASS(3, "NASCTRL_DPC: sprintf_s err(%d).", ret);
        return static_cast<uint32_t>(ret);
    }
    char *dash = strchr(body, '-');
    if (dash == nullptr) {
        return AddVerToArry(static_cast<uint32_t>(numberAt(body)), array);
    }
    *dash = '\0';
    return addRange(__func__, numberAt(body), numberAt(dash + 1), array);
}

uint32_t ParseCompaVersListFromStr(const char *text, version_array *array)
{
    if (text == nullptr) {
        LOG_CLASS(3, "NASCTRL_DPC: local compa array is NULL.");
        return NAS_INVALID;
    }
    if (*text != '\0' && array == nullptr) {
        LOG_NULL("array", "NAS_INVALID", -1);
        return NAS_INVALID;
    }
    const char *next = text;
    while (*next != '\0') {
        const char *open = strchr(next, '[');
        if (open == nullptr) {
            return acceptRest(__func__, text, next != text);
        }
        const char *close = strchr(next, ']'); /* from where the "[" was sought, so that one before it is found */
        if (close == nullptr || close < open) {
            LOG_CLASS(3, "NASCTRL_DPC: wrong compa ver(%s) format.", text);
            return NAS_INVALID;
        }
        const uint32_t ret = PickUpVersInOneBracket(open, close, array);
        if (ret != NAS_OK) {
            LOG_CLASS(3, "NASCTRL_DPC: pick vers in one Bracket err(%d), check(%s).", static_cast<int>(ret), text);
            return ret;
        }
        next = close + 1;
    }
    return NAS_OK;
}
