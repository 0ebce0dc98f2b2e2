// Fixture of the flows: a machine on which nothing is really installed, with devices, a Store and recorded boxes.
#pragma once

#include "app/switches.h"
#include "support/box_recorder.h"
#include "support/fake_devices.h"
#include "support/fake_machine.h"
#include "support/fake_runtime.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/test.h"

IMPORTED(CloseHandle, SetEvent)

namespace repair
{
inline constexpr wchar_t kStorePackage[] = L"TavikSystemsInc-2.TavikCorvelSoftware_1.0.0.0_x64__abc";
inline const BoxRecorder::Box kFinished = {L"Finished installing Tavik Software", 0x10040};
inline const BoxRecorder::Box kInstallFailed = {L"Error installing Tavik Software.", 0x10010};
inline const BoxRecorder::Box kDownloadFailed = {L"Error downloading Tavik Software", 0x10010};

class AppTest : public testing::Test
{
protected:
    AppTest()
    {
        boxes_.onBox = [this] { order_.push_back("box"); };
        Silent = false;  // another test of this process may have set it
    }

    // Runs the flow as a new process would; afterwards the lines contain only those of the flow.
    template <typename Flow>
    int RunLogged(Flow flow)
    {
        machine_.EndProcess();
        LogCapture log;
        const int result = flow();
        lines_ = log.Lines();
        return result;
    }
    void ServerFolder(const std::wstring& folder)
    {
        registry_.SetString(L"SOFTWARE\\Tavik", L"DWXServerFolder", folder);
    }
    // A file is where the folder of the installer has to be, so the installation raises an exception.
    void BlockTheInstallation() { machine_.Folder().WriteBytes(L"Tavik_VLTInstallerDownload", "in the way"); }
    void FailTheMainPackage()
    {
        machine_.packageResults[machine_.ExtractionFolder() + L"\\HL\\halden\\halden64\\dwx-next64.msi"] = 1603;
    }

    MachineRegistry registry_;
    FakeMachine machine_;
    FakeRuntime runtime_;
    FakeDevices devices_;
    BoxRecorder boxes_;
    std::vector<std::wstring> lines_;
    std::vector<std::string> order_;  // "box" and, of the event of the instance, "signal" and "close"
    HANDLE event_ = nullptr;
    SUBSTITUTE(SetEvent)
    signal_{[this](HANDLE event) {
        if (event == event_)
        {
            order_.push_back("signal");
        }
        return signal_.Original()(event);
    }};
    SUBSTITUTE(CloseHandle)
    close_{[this](HANDLE handle) {
        if (handle != nullptr && handle == event_)
        {
            order_.push_back("close");
            event_ = nullptr;
        }
        return close_.Original()(handle);
    }};
};
}  // namespace repair
