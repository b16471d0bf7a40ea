#include "SeenNames.h"

#include "ZipDirectory.h"

#include <cwchar>
#include <cwctype>

namespace zel {

namespace {

class Hash // FNV-1a
{
public:
    void add(uint32_t unit) { m_value = (m_value ^ unit) * 0x100000001b3; }
    uint64_t value() const { return m_value; }

private:
    uint64_t m_value = 0xcbf29ce484222325;
};

// Takes the first character off `rest` and returns it in lower case.
uint32_t takeFolded(std::string_view &rest)
{
    wchar_t character = 0;
    std::mbstate_t state{};
    const size_t length = std::mbrtowc(&character, rest.data(), rest.size(), &state);
    if (length == 0 || length > rest.size()) { // not UTF-8
        const auto byte = static_cast<unsigned char>(rest.front());
        rest.remove_prefix(1);
        return 0x80000000U | byte;
    }
    rest.remove_prefix(length);
    return uint32_t(std::towlower(std::towupper(wint_t(character))));
}

} // namespace

Problem SeenNames::add(std::string_view name, bool folder)
{
    Hash exact, folded;
    for (std::string_view rest = name; !rest.empty();) {
        if (rest.front() == '/') {
            const std::string_view above = name.substr(0, name.size() - rest.size());
            if (Problem problem = addPlace(above, folded.value(), {exact.value(), true, false}))
                return problem;
        }
        const std::string_view before = rest;
        folded.add(takeFolded(rest));
        for (char byte : before.substr(0, before.size() - rest.size()))
            exact.add(static_cast<unsigned char>(byte));
    }
    return addPlace(name, folded.value(), {exact.value(), folder, true});
}

Problem SeenNames::addPlace(std::string_view name, uint64_t folded, const Place &place)
{
    const auto [found, added] = m_places.try_emplace(folded, place);
    Place &there = found->second;
    if (added && m_places.size() > maximumEntries)
        return "the archive holds more than " + std::to_string(maximumEntries) + " entries";
    if (added)
        return {};
    if (there.exact != place.exact)
        return entryProblem(name, "differs from another only by case");
    if (place.listed && there.listed)
        return entryProblem(name, "is there twice");
    if (!place.folder || !there.folder)
        return entryProblem(name, "is a folder to some entries and something else to others");
    there.listed = there.listed || place.listed;
    return {};
}

} // namespace zel
