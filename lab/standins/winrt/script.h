// C:\lab\standins\store.txt: which packages the machine has and how each call of the component ends.
#pragma once
#include <windows.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "abi.h"

namespace lab
{
// How one call ends: "ok", "null", or a failure code, with or without an error object on the thread.
struct Outcome
{
    HRESULT result = S_OK;
    bool isNull = false;  // success, but nothing comes back
    bool hasErrorObject = false;
    bool isRestricted = true;  // the error object also answers IRestrictedErrorInfo
    HRESULT errorObjectResult = S_OK;
    std::wstring description;  // IErrorInfo; without a restricted text it is GetErrorDetails' description too
    std::wstring text;         // the restricted description
    bool hasText = false;

    // Puts the error object, if any, on this thread and returns the code.
    HRESULT Apply() const;
};

struct Completion
{
    enum Kind
    {
        Before,  // finished before the program gets the operation
        Inside,  // the handler runs inside put_Completed
        Thread,  // the handler runs on another thread before put_Completed returns
        Later,   // on another thread after some time
        Never
    };
    Kind kind = Later;
    DWORD milliseconds = 50;
};

struct Ending
{
    abi::AsyncStatus status = abi::kCompleted;
    Outcome error;
};

struct PackageScript
{
    std::wstring name;
    bool hasName = true;  // otherwise the full name is a null string
    abi::PackageVersion version{};
    bool isOk = true;
    std::wstring user;
    std::map<std::wstring, Outcome> failures;  // by method
    std::set<std::wstring> nulls;              // getters that succeed with null
    Outcome removal;
    Ending removalEnd;
    Completion completion;
    bool stays = false;
};

struct CountedFailure
{
    unsigned call = 0;  // 0: none
    Outcome outcome;
};

struct ManagerScript
{
    Outcome activation;
    bool needsApartment = false;
    Outcome create, find, first;
    CountedFailure next, current;
};

struct StoreScript
{
    Outcome activation;
    bool needsApartment = false;
    Outcome context, window, request, results, overall;
    bool hasWindow = true;
    bool hasContext3 = true;
    bool walksWithGetMany = false;
    bool readsLate = false;
    INT32 state = 3;
    Ending end;
    Completion completion;
    std::wstring installsName;
    abi::PackageVersion installsVersion{};
};

struct Script
{
    ManagerScript manager;
    StoreScript store;
    std::vector<PackageScript> packages;
    bool isBad = false;  // the file has a fault; each one is in the record
};

Script ReadScript();
}  // namespace lab
