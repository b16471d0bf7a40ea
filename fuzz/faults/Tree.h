// What lies below a path, to be compared.
#pragma once

#include <filesystem>
#include <map>
#include <string>

/// The items by their relative paths: kind, mode, and a file's bytes or a link's target. Empty where there is
/// nothing.
using Tree = std::map<std::string, std::string>;

Tree treeOf(const std::filesystem::path &root);

/// Copies a file or a folder with all in it: links as links, and the times, which archives have in them.
void copyTree(const std::filesystem::path &from, const std::filesystem::path &to);

/// The name of an item in which the two differ; empty when they are alike.
std::string firstDifference(const Tree &one, const Tree &other);
