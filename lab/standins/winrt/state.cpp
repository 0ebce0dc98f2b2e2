#include <algorithm>
#include <mutex>

#include "classes.h"
#include "lab_file.h"

namespace lab
{
namespace
{
constexpr const wchar_t* kStatePath = L"C:\\lab\\standins\\store-state.txt";

std::wstring PackageName(const std::wstring& fullName)
{
    return fullName.substr(0, fullName.find(L'_'));
}

// An earlier process may have changed the packages: the file lists those that are left and those that came.
std::vector<PackageScript> ReadState(const Script& script)
{
    if (GetFileAttributesW(kStatePath) == INVALID_FILE_ATTRIBUTES)
    {
        return script.packages;
    }
    std::vector<PackageScript> known = script.packages;
    std::vector<PackageScript> installed;
    for (const standin::Line& line : standin::ReadLines(kStatePath))
    {
        const auto found = std::find_if(known.begin(), known.end(),
                                        [&](const PackageScript& package) { return package.name == line.text; });
        if (found == known.end())
        {
            installed.push_back({line.text, script.store.installsVersion});
            continue;
        }
        installed.push_back(*found);
        known.erase(found);  // two packages of one name are two lines
    }
    return installed;
}

struct State
{
    Script script = ReadScript();
    std::mutex mutex;
    std::vector<PackageScript> packages = ReadState(script);

    void Write() const
    {
        std::vector<std::wstring> names;
        for (const PackageScript& package : packages)
        {
            names.push_back(package.name);
        }
        standin::WriteLines(kStatePath, names);
    }
};

State& TheState()
{
    static State& state = *new State;
    return state;
}
}  // namespace

const Script& TheScript()
{
    return TheState().script;
}

std::vector<PackageScript> InstalledPackages()
{
    State& state = TheState();
    const std::scoped_lock lock(state.mutex);
    return state.packages;
}

void RemovePackage(const PackageScript& package)
{
    State& state = TheState();
    const std::scoped_lock lock(state.mutex);
    const auto found = std::find_if(state.packages.begin(), state.packages.end(),
                                    [&](const PackageScript& other) { return other.name == package.name; });
    if (found != state.packages.end())
    {
        state.packages.erase(found);
        state.Write();
    }
}

void AddPackage(const std::wstring& name, abi::PackageVersion version)
{
    State& state = TheState();
    const std::scoped_lock lock(state.mutex);
    // As on Windows a newer version replaces the older one; full names are the same up to the first "_".
    std::erase_if(state.packages,
                  [&](const PackageScript& other) { return PackageName(other.name) == PackageName(name); });
    state.packages.push_back({name, version});
    state.Write();
}
}  // namespace lab
