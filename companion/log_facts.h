// What the lines of a log tell about the machine and the run, beside the outcome.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace repair
{
struct StorePackage
{
    std::string name;  // full name
    std::string version;
    bool isUsable = true;
};

// Takes the lines of a log in order. Texts are UTF-8, and empty if the log does not say.
class LogFacts
{
public:
    void Take(std::string_view line);

    // True if at least one line is a line of the tool.
    [[nodiscard]] bool IsLog() const { return isLog_; }
    // Command line without the program; nothing if the log lacks its first line.
    [[nodiscard]] const std::optional<std::string>& Switches() const { return switches_; }
    // Name of the adapter that decides, and release of its driver.
    [[nodiscard]] const std::string& Adapter() const { return adapter_; }
    [[nodiscard]] const std::string& Driver() const { return driver_; }
    // "desktop", "store" or "none".
    [[nodiscard]] std::string Edition() const;
    // The version that the tool compares with the driver.
    [[nodiscard]] std::string Version() const;
    // "driver-package", "download", "store" or "given".
    [[nodiscard]] const std::string& Source() const { return source_; }
    // Names of display adapters that are not the maker's, as far as they fit into a line.
    [[nodiscard]] const std::string& OtherAdapters() const { return otherAdapters_; }
    // Path or address of the installer.
    [[nodiscard]] const std::string& Installer() const { return installer_; }
    // Path of the installer that was started; it may have been removed since.
    [[nodiscard]] const std::string& StartedInstaller() const { return startedInstaller_; }
    // True if the log proves that the application was removed and not installed again.
    [[nodiscard]] bool IsApplicationGone() const { return wasRemoved_ && !wasKept_; }
    // True if the log has a line of the removal of a product.
    [[nodiscard]] bool TriedRemoval() const { return triedRemoval_; }
    [[nodiscard]] const std::vector<StorePackage>& StorePackages() const { return storePackages_; }

private:
    enum class Step  // of the main product; its result follows
    {
        kOther,
        kRemoval,
        kInstallation,
    };

    void TakeInstaller(std::string_view line);
    void TakePackage(std::string_view line);

    bool isLog_ = false;
    std::optional<std::string> switches_;
    std::string desktopVersion_;
    bool isDriverNext_ = false;  // the line after the heading of the list of drivers
    std::string adapter_;
    std::string driver_;
    std::string otherAdapters_;
    bool isDecided_ = false;  // the line shows that an edition was found
    bool hasNoDesktop_ = false;
    bool hasNoStore_ = false;
    std::vector<StorePackage> storePackages_;
    std::string source_;
    std::string installer_;
    std::string startedInstaller_;
    std::string release_;  // that is downloaded
    Step step_ = Step::kOther;
    bool triedRemoval_ = false;
    bool wasRemoved_ = false;
    bool wasKept_ = false;  // a removal may have failed, or the new one was installed
};
}  // namespace repair
