#pragma once

#include <string>

/** Does what each letter stands for (see make_bare_commands), in order. */
void run_bare_commands(const std::string& letters);
