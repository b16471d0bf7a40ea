// Puts a new bundle in the place of the installed one.
#pragma once

#include <filesystem>
#include <system_error>

/// Brings `newBundle` beside `installed` and exchanges the two in one step, so that there is a whole bundle at the
/// installed path at every moment, also after a crash. The old bundle is kept at `previousBundle(installed)` until
/// `dropPreviousBundle`. On failure both bundles are what they were.
std::error_code swapBundles(const std::filesystem::path &newBundle, const std::filesystem::path &installed);

/// Where the old bundle is kept.
std::filesystem::path previousBundle(const std::filesystem::path &installed);

/// Removes the old bundle: the new one has started. Whether there was one.
bool dropPreviousBundle(const std::filesystem::path &installed);
