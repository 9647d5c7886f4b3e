#pragma once

#include <cstdint>
#include <vector>

/**
 * Announces properties as changed after a delay, one signal to a property, in order. A newer request replaces
 * one that is still pending. For the main thread.
 *
 * @param properties names of properties; literals
 * @param delaySec delay in seconds
 */
void emit_properties_later(std::vector<const char*> properties, int32_t delaySec);
