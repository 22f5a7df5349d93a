/*
 * Plain exported words that several threads share without a lock: each access is whole, and none orders any other.
 */
#ifndef NASCTRL_INTERNAL_WORDS_H
#define NASCTRL_INTERNAL_WORDS_H

#include <atomic>

namespace nas {

template <typename Word>
Word readWord(Word &word)
{
    return std::atomic_ref<Word>(word).load(std::memory_order_relaxed);
}
template <typename Word>
void writeWord(Word &word, Word value)
{
    std::atomic_ref<Word>(word).store(value, std::memory_order_relaxed);
}

} // namespace nas

#endif
