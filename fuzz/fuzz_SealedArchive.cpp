// A genuine archive and what an attacker without the key may do to it: rename, exchange, link, add, leave
// out. Nothing is written outside the folder, no mode but the usual ones comes up, and a bundle that verifies
// is the genuine one.
#include "HostilePath.h"
#include "install/ArchiveExtractor.h"
#include "platform/BundleInfo.h"
#include "seal/BundleSeal.h"
#include "support/Signing.h"
#include "support/ZipMaker.h"
#include "Unpacking.h"

#include <clocale>
#include <QFile>

using namespace zel;
namespace fs = std::filesystem;

namespace {

const std::string BundleName = "Example.app";

QByteArray bytesOf(const std::string &text)
{
    return QByteArray::fromStdString(text);
}

QString pathOf(const fs::path &path)
{
    return QFile::decodeName(path.c_str());
}

std::vector<ZipItem> itemsBelow(const fs::path &root)
{
    std::vector<ZipItem> items;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root)) {
        const QByteArray name = bytesOf(entry.path().lexically_relative(root));
        if (entry.is_symlink())
            items.push_back(ZipMaker::link(name, bytesOf(fs::read_symlink(entry.path()))));
        else if (entry.is_directory())
            items.push_back(ZipMaker::folder(name));
        else
            items.push_back({.name = name, .data = bytesOf(Sandbox::read(entry.path()))});
    }
    return items;
}

// Files and links by their names; a seal does not cover folders.
std::map<std::string, std::string> sealedContent(const fs::path &bundle)
{
    std::map<std::string, std::string> content;
    for (const ZipItem &item : itemsBelow(bundle)) {
        if (!S_ISDIR(item.mode))
            content[item.name.toStdString()] = (S_ISLNK(item.mode) ? '@' : '=') + item.data.toStdString();
    }
    return content;
}

struct Fixture {
    Fixture()
    {
        require(std::setlocale(LC_CTYPE, "C.UTF-8"));
        const fs::path contents = bundle() / "Contents";
        fs::create_directories(contents / "MacOS");
        Sandbox::write(contents / "Info.plist",
                       "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key><string>file</string>"
                       "</dict></plist>");
        Sandbox::write(contents / "MacOS/file", "program");
        fs::create_directory_symlink("MacOS", contents / "link");
        const TestCertificate signer = makeTestCertificate(pathOf(sandbox.path("beside")), "signer");
        require(!sealWith(pathOf(bundle()), signer));
        items = itemsBelow(sandbox.path("genuine"));
        content = sealedContent(bundle());
        before = sandbox.surroundings();
    }
    fs::path bundle() const { return sandbox.path("genuine") / BundleName; }

    Sandbox sandbox;
    std::vector<ZipItem> items;
    std::map<std::string, std::string> content;
    std::map<std::string, std::string> before;
};

class Attack
{
public:
    Attack(const Fixture &fixture, FuzzedDataProvider &input)
        : m_fixture(fixture)
        , m_input(input)
        , m_items(fixture.items)
    {
    }

    QByteArray archive()
    {
        for (int step = 0; step < 6 && m_input.remaining_bytes() > 0 && !m_items.empty(); ++step)
            alter();
        QByteArray bytes = ZipMaker::make(m_items);
        while (m_input.remaining_bytes() > 0 && m_input.ConsumeBool()) {
            const auto at = m_input.ConsumeIntegralInRange<qsizetype>(0, bytes.size() - 1);
            bytes[at] = m_input.ConsumeIntegral<char>();
        }
        return bytes;
    }

private:
    void alter()
    {
        ZipItem &item = m_items[m_input.ConsumeIntegralInRange<size_t>(0, m_items.size() - 1)];
        switch (m_input.ConsumeIntegralInRange(0, 6)) {
        case 0:
            item.name = name();
            break;
        case 1:
            item.data = bytesOf(m_input.ConsumeRandomLengthString(100));
            break;
        case 2:
            item.mode = (item.mode & S_IFMT) | (m_input.ConsumeIntegral<uint16_t>() & 07777U);
            break;
        case 3:
            m_items.push_back(ZipMaker::link(name(), name()));
            break;
        case 4:
            m_items.push_back({.name = name(), .data = "added"});
            break;
        case 5:
            std::swap(item, m_items.back());
            m_items.pop_back();
            break;
        default: // out of the way, for something else to take its place
            moveBundle(name() + '/');
        }
    }

    void moveBundle(const QByteArray &folder)
    {
        for (ZipItem &item : m_items)
            item.name.prepend(folder);
        m_items.push_back(ZipMaker::link(QByteArray::fromStdString(BundleName), name()));
    }

    QByteArray name()
    {
        const auto picked = m_input.ConsumeIntegralInRange<size_t>(0, m_items.size() + 2);
        if (picked < m_items.size())
            return m_items[picked].name;
        if (picked == m_items.size())
            return "Other.app";
        return bytesOf(hostilePath(m_input, m_fixture.sandbox));
    }

    const Fixture &m_fixture;
    FuzzedDataProvider &m_input;
    std::vector<ZipItem> m_items;
};

void requireUsualModes(const fs::path &folder)
{
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(folder)) {
        const auto mode = unsigned(entry.symlink_status().permissions());
        require(entry.is_symlink() || mode == 0755 || (mode == 0644 && entry.is_regular_file()));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    static const Fixture fixture;
    const fs::path inside = fixture.sandbox.inside();
    fs::remove_all(inside);
    fs::create_directory(inside);
    FuzzedDataProvider input(data, size);
    const QByteArray archive = Attack(fixture, input).archive();
    if (unpack({archive.constData(), size_t(archive.size())}, inside)) {
        requireUsualModes(inside);
        const QString found = findBundle(pathOf(inside));
        if (!found.isNull() && !verifySeal(found)) {
            const fs::path bundle = QFile::encodeName(found).toStdString();
            require(!fs::is_symlink(bundle) && sealedContent(bundle) == fixture.content);
            require(!ensureProgramIsExecutable(found));
            require(::access((bundle / "Contents/MacOS/file").c_str(), X_OK) == 0);
        }
    }
    require(fixture.sandbox.surroundings() == fixture.before);
    return 0;
}
