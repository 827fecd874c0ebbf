#pragma once

#include <string>
#include <utility>

/// What the constructor of a global in this library got from its lookup, made while it was loaded.
const std::pair<std::string, std::string>& earlyLookup();
