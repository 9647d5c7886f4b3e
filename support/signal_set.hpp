#pragma once

#include <csignal>
#include <initializer_list>
#include <span>

/**
 * @param signals numbers of signals, see signal(7)
 * @return the set that holds these signals and no other
 */
inline sigset_t signal_set(std::span<const int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : signals) {
        sigaddset(&set, number);
    }
    return set;
}

inline sigset_t signal_set(std::initializer_list<int> signals)
{
    return signal_set(std::span(signals.begin(), signals.size()));
}
