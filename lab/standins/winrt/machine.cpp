#include "machine.h"

#include <algorithm>
#include <mutex>

#include "lab_file.h"

namespace lab
{
namespace
{
constexpr const wchar_t* kStatePath = L"C:\\lab\\standins\\store-state.txt";

PackageScript NewPackage(const std::wstring& name, abi::PackageVersion version)
{
    PackageScript package;
    package.name = name;
    package.version = version;
    return package;
}

std::wstring PackageName(const std::wstring& fullName)
{
    return fullName.substr(0, fullName.find(L'_'));
}

// An earlier process may have changed the machine: its state names what is left and what came.
std::vector<PackageScript> ReadState(const Script& script)
{
    if (GetFileAttributesW(kStatePath) == INVALID_FILE_ATTRIBUTES)
        return script.packages;
    std::vector<PackageScript> known = script.packages;
    std::vector<PackageScript> installed;
    for (const standin::Line& line : standin::ReadLines(kStatePath))
    {
        const auto found = std::find_if(known.begin(), known.end(),
                                        [&](const PackageScript& package) { return package.name == line.text; });
        if (found == known.end())
        {
            installed.push_back(NewPackage(line.text, script.store.installsVersion));
            continue;
        }
        installed.push_back(*found);
        known.erase(found);  // two packages of one name are two lines
    }
    return installed;
}

struct Machine
{
    Script script = ReadScript();
    std::mutex mutex;
    std::vector<PackageScript> packages = ReadState(script);

    void WriteState() const
    {
        std::vector<std::wstring> names;
        for (const PackageScript& package : packages)
            names.push_back(package.name);
        standin::WriteLines(kStatePath, names);
    }
};

Machine& TheMachine()
{
    static Machine& machine = *new Machine;
    return machine;
}
}  // namespace

const Script& TheScript()
{
    return TheMachine().script;
}

std::vector<PackageScript> InstalledPackages()
{
    Machine& machine = TheMachine();
    const std::scoped_lock lock(machine.mutex);
    return machine.packages;
}

void RemovePackage(const PackageScript& package)
{
    Machine& machine = TheMachine();
    const std::scoped_lock lock(machine.mutex);
    const auto found = std::find_if(machine.packages.begin(), machine.packages.end(),
                                    [&](const PackageScript& other) { return other.name == package.name; });
    if (found == machine.packages.end())
        return;
    machine.packages.erase(found);
    machine.WriteState();
}

void AddPackage(const std::wstring& name, abi::PackageVersion version)
{
    Machine& machine = TheMachine();
    const std::scoped_lock lock(machine.mutex);
    // As on Windows, where a newer version takes the place of the older one: what differs stands behind the first "_".
    std::erase_if(machine.packages,
                  [&](const PackageScript& other) { return PackageName(other.name) == PackageName(name); });
    machine.packages.push_back(NewPackage(name, version));
    machine.WriteState();
}
}  // namespace lab
