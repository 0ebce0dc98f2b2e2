// The folder in which `run` does its work: Program Files\Tavik\MIM\Repair, for administrators and the system only.
#pragma once

#include <string>

#include "base/handles.h"

namespace repair
{
// Program Files\Tavik\MIM, without a trailing backslash, on the drive that holds the Windows directory.
std::wstring GetProgramFolder();

// One object is one run: as long as it lives, no other run can take the folder.
class SafePlace
{
public:
    // Creates the folder; one that does not belong to administrators, and a link or a file of its name, is removed
    // first. Throws Failure.
    SafePlace();

    // True if another run has it. Do not use the other members then.
    [[nodiscard]] bool IsTaken() const { return !lock_; }

    // The tool's temporary folder.
    [[nodiscard]] const std::wstring& Temporary() const { return temporary_; }
    // What a recovery needs.
    [[nodiscard]] std::wstring Kept() const { return folder_ + L"\\Kept"; }

    // Where `run --keep` leaves the two programs, for systems that detect without the content.
    [[nodiscard]] std::wstring Programs() const { return folder_ + L"\\Programs"; }

    // Makes the temporary folder anew, with the folder that the installer is started in: in a session without a user
    // the tool does not make that. If a program has the old one open, this one gets another name. Throws Failure.
    void MakeTemporary();

    // Makes the temporary folder the kept one. Returns false if that fails; then there is no kept one.
    [[nodiscard]] bool KeepTemporary() const;

    // Failures are ignored: the next run makes both anew.
    void RemoveTemporary() const noexcept;
    void RemoveKept() const noexcept;

private:
    [[nodiscard]] std::wstring TemporaryName(int number) const;

    std::wstring folder_;
    std::wstring temporary_;
    FileHandle held_;  // so that the folder cannot be replaced
    FileHandle lock_;
};
}  // namespace repair
