// The application of the demonstration: says which build it is and what its bundle holds for it.
#include <filesystem>
#include <fstream>
#include <iostream>

int main(int, char *argv[])
{
    const auto contents = std::filesystem::canonical(argv[0]).parent_path().parent_path();
    std::ifstream greeting(contents / "Resources/greeting.txt"); // a link to the current greeting
    std::string text;
    std::getline(greeting, text);
    std::cout << "Example, build " << EXAMPLE_BUILD << ": " << text << '\n';
    return text.empty();
}
