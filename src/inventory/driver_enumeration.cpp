#include "inventory/driver_enumeration.h"

#include <cstddef>
#include <cwchar>
#include <exception>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>

#include "base/log.h"
#include "base/owned.h"
#include "base/registry.h"
#include "base/system_message.h"
#include "base/text.h"
#include "inventory/constants.h"
#include "inventory/inf_release.h"
#include "inventory/setup_api.h"

namespace repair
{
namespace
{
// SetupAPI checks these sizes; it refuses other packings of the structures at run time.
static_assert(sizeof(SP_DEVINFO_DATA) == 32);
static_assert(sizeof(SP_DRVINFO_DATA_V2_W) == 1568);
static_assert(sizeof(SP_DRVINFO_DETAIL_DATA_W) == 1584);

// DEVPKEY_Device_ProblemCode; no library of the toolchain defines it.
constexpr DEVPROPKEY kProblemCodeProperty = {
    {0x4340A6C5, 0x93FA, 0x4706, {0x97, 0x2C, 0x7B, 0x64, 0x80, 0x08, 0xA5, 0xA7}}, 3};
constexpr DEVPROPTYPE kUnsigned32 = 7;  // DEVPROP_TYPE_UINT32

struct DeviceListKind
{
    using Handle = HDEVINFO;
    static Handle None() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Handle list) noexcept { SetupDiDestroyDeviceInfoList(list); }  // driver lists go with it
};
using DeviceList = Owned<DeviceListKind>;

// A SetupAPI failure as the log shows it: HRESULT_FROM_SETUPAPI of the code, and its text.
struct SetupFailure
{
    explicit SetupFailure(DWORD code) : result(ToResult(code)), text(FormatSystemMessage(result)) {}

    static DWORD ToResult(DWORD code)
    {
        constexpr DWORD kSetupMask = APPLICATION_ERROR_MASK | ERROR_SEVERITY_ERROR;
        if ((code & kSetupMask) == kSetupMask)
        {
            return 0x800F0000 | (code & 0xFFFF);
        }
        return static_cast<LONG>(code) > 0 ? 0x80070000 | (code & 0xFFFF) : code;
    }

    DWORD result;
    std::wstring text;
};

// Buffers for the whole enumeration, by design never cleared: after a failed call, the previous device's or package's
// value is used.
struct SharedBuffers
{
    wchar_t instanceId[kInstanceIdCharacters] = {};
    wchar_t storePath[MAX_PATH] = {};
};

// A text property of a device; without `wasRead` the text is empty and `error` is the cause.
struct DeviceText
{
    bool wasRead = false;
    DWORD error = ERROR_SUCCESS;
    std::wstring text;
};

DeviceText ReadDeviceText(HDEVINFO devices, SP_DEVINFO_DATA& device, DWORD property)
{
    DWORD bytes = 0;
    SetupDiGetDeviceRegistryPropertyW(devices, &device, property, nullptr, nullptr, 0, &bytes);
    // One character for each byte, so that a terminator always follows the text.
    const auto buffer = std::make_unique<wchar_t[]>(size_t{bytes} + 1);
    if (SetupDiGetDeviceRegistryPropertyW(devices, &device, property, nullptr, reinterpret_cast<BYTE*>(buffer.get()),
                                          bytes, nullptr) == 0)
    {
        return {false, GetLastError(), {}};
    }
    return {true, ERROR_SUCCESS, buffer.get()};
}

bool IsMakersAdapter(const std::wstring& instanceId)
{
    return ContainsNoCase(instanceId, kVendorId) || ContainsNoCase(instanceId, kSecondVendorId);
}

// Reads the release of the active driver from its registry key. Returns false, after logging, on failure.
bool ReadActiveRelease(DisplayDriverInfo& record)
{
    try
    {
        record.releaseVersion = ReadMachineString(record.driverKeyPath, kReleaseVersionValue);
        record.releaseBase = record.releaseVersion.substr(0, record.releaseVersion.find(L'-'));
        return true;
    }
    catch (const std::exception& error)
    {
        LogLine(L"Unable to find ReleaseVersion regkey for [%s] - [%s]. %s", record.description.c_str(),
                record.instanceId.c_str(), ExceptionText(error).c_str());
        return false;
    }
}

DWORD ReadProblemCode(HDEVINFO devices, SP_DEVINFO_DATA& device)
{
    DEVPROPTYPE type = kUnsigned32;
    DWORD problemCode = 0;
    if (SetupDiGetDevicePropertyW(devices, &device, &kProblemCodeProperty, &type, reinterpret_cast<BYTE*>(&problemCode),
                                  sizeof(problemCode), nullptr, 0) == 0)
    {
        const DWORD error = GetLastError();  // by design not logged as an HRESULT like the other failures
        LogLine(L"Unable to get DEVPKEY_Device_ProblemCode property: % d % s", error,
                FormatSystemMessage(error).c_str());
        return 0;
    }
    if (problemCode != 0)
    {
        LogLine(L"Device has CM_PROB_Xxx code %d", problemCode);
    }
    return problemCode;
}

// Path of a driver package's INF in the driver store.
std::wstring LocateInf(HDEVINFO devices, SP_DEVINFO_DATA& device, SP_DRVINFO_DATA_V2_W& driver, SharedBuffers& buffers)
{
    DWORD bytes = 0;
    SetupDiGetDriverInfoDetailW(devices, &device, &driver, nullptr, 0, &bytes);
    if (bytes < sizeof(SP_DRVINFO_DETAIL_DATA_W))
    {
        bytes = sizeof(SP_DRVINFO_DETAIL_DATA_W);  // the size could not be read
    }
    const auto memory = std::make_unique<std::byte[]>(bytes);  // zeroed
    auto* const detail = reinterpret_cast<SP_DRVINFO_DETAIL_DATA_W*>(memory.get());
    detail->cbSize = sizeof(SP_DRVINFO_DETAIL_DATA_W);
    SetupDiGetDriverInfoDetailW(devices, &device, &driver, detail, bytes, nullptr);
    SetupGetInfDriverStoreLocationW(detail->InfFileName, nullptr, nullptr, buffers.storePath,
                                    static_cast<DWORD>(std::size(buffers.storePath)), nullptr);
    return buffers.storePath;
}

// Folder of the compatible package with the active release. If there are several, the last one wins.
std::wstring FindDriverFolder(HDEVINFO devices, SP_DEVINFO_DATA& device, const std::wstring& releaseVersion,
                              SharedBuffers& buffers)
{
    std::wstring folder;
    SetupDiBuildDriverInfoList(devices, &device, SPDIT_COMPATDRIVER);
    SP_DRVINFO_DATA_V2_W driver = {};
    driver.cbSize = sizeof(driver);
    for (DWORD index = 0; SetupDiEnumDriverInfoW(devices, &device, SPDIT_COMPATDRIVER, index, &driver) != 0; ++index)
    {
        const std::wstring inf = LocateInf(devices, device, driver, buffers);
        const std::wstring infVersion = ReadInfReleaseVersion(inf);
        LogLine(L"Found driver %s. Version [%s]", inf.c_str(), infVersion.c_str());
        if (_wcsicmp(infVersion.c_str(), releaseVersion.c_str()) == 0)
        {
            LogLine(L"\tFound driver matching active driver");
            folder = std::filesystem::path(inf).parent_path().wstring();
        }
    }
    return folder;
}

// Reads one device; returns nothing if the device does not belong in the list.
std::optional<DisplayDriverInfo> ReadAdapter(HDEVINFO devices, SP_DEVINFO_DATA& device, SharedBuffers& buffers)
{
    DisplayDriverInfo record;
    if (SetupDiGetDeviceInstanceIdW(devices, &device, buffers.instanceId,
                                    static_cast<DWORD>(std::size(buffers.instanceId)), nullptr) == 0)
    {
        const SetupFailure failure(GetLastError());
        LogLine(L"Failed to call SetupDiGetDeviceInstanceId %d  %ls", failure.result, failure.text.c_str());
    }
    record.instanceId = buffers.instanceId;
    record.description = ReadDeviceText(devices, device, SPDRP_DEVICEDESC).text;
    if (!IsMakersAdapter(record.instanceId))
    {
        LogLine(L"[%s] - [%s] is not an Tavik Display Adapter.", record.description.c_str(), record.instanceId.c_str());
        return std::nullopt;
    }

    const DeviceText driverKey = ReadDeviceText(devices, device, SPDRP_DRIVER);
    if (!driverKey.wasRead)
    {
        const SetupFailure failure(driverKey.error);
        LogLine(L"Failed to get SPDRP_DRIVER for %s: %d  %ls", buffers.instanceId, failure.result,
                failure.text.c_str());
        return std::nullopt;
    }
    record.driverKeyPath = kDriverKeys + driverKey.text;
    if (!ReadActiveRelease(record))
    {
        return std::nullopt;
    }
    record.problemCode = ReadProblemCode(devices, device);

    LogLine(L"Enumerating installed drivers for %s - %s", record.instanceId.c_str(), record.description.c_str());
    record.driverFolder = FindDriverFolder(devices, device, record.releaseVersion, buffers);
    if (record.description.find(kGenericDriverMaker) != std::wstring::npos)
    {
        return std::nullopt;
    }
    return record;
}
}  // namespace

std::list<DisplayDriverInfo> EnumerateDisplayDrivers()
{
    std::list<DisplayDriverInfo> records;
    DeviceList devices(SetupDiGetClassDevsW(&kDisplayClass, nullptr, nullptr, DIGCF_PRESENT));
    if (!devices)
    {
        const SetupFailure failure(GetLastError());
        LogLine(L"Failed to call SetupDiGetClassDevs %d  %ls", failure.result, failure.text.c_str());
        return records;
    }

    SharedBuffers buffers;
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    for (DWORD index = 0; SetupDiEnumDeviceInfo(devices.Get(), index, &device) != 0; ++index)
    {
        if (std::optional<DisplayDriverInfo> record = ReadAdapter(devices.Get(), device, buffers))
        {
            records.push_back(*std::move(record));
        }
    }
    devices.Close();
    records.sort([](const DisplayDriverInfo& a, const DisplayDriverInfo& b) { return a.releaseBase > b.releaseBase; });
    return records;
}
}  // namespace repair
