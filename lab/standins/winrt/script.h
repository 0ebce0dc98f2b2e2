// The packages that the machine has, and how each call of the component ends.
#pragma once
#include <windows.h>

#include <map>
#include <string>
#include <vector>

#include "abi.h"

namespace lab
{
namespace abi = winrt_abi;

// How one call ends: success, success without an object, or a failure, with or without an error object on the thread.
struct Answer
{
    HRESULT result = S_OK;
    unsigned onlyCall = 0;  // only this call ends so, counted from 1; 0: every call
    bool hasErrorObject = false;
    bool isRestricted = true;  // the error object also answers IRestrictedErrorInfo
    HRESULT errorObjectResult = S_OK;
    HRESULT detailsResult = S_OK;   // what GetErrorDetails returns
    std::wstring description = {};  // IErrorInfo; without a restricted text it is GetErrorDetails' description too
    std::wstring text = {};         // the restricted description
    bool hasText = false;

    // Puts the error object, if any, on this thread and returns the code.
    HRESULT Give() const;
};

// By method, or by interface for QueryInterface. A success in this list comes without an object; a method that is not
// in the list succeeds.
using Answers = std::map<std::wstring, Answer>;

struct Completion
{
    enum Kind
    {
        kBefore,  // finished before the program gets the operation
        kInside,  // the handler runs inside put_Completed
        kThread,  // the handler runs on another thread before put_Completed returns
        kLater    // on another thread after some time
    };
    Kind kind = kLater;
    DWORD milliseconds = 50;
};

struct Ending
{
    abi::AsyncStatus status = abi::kCompleted;
    Answer error = {};
};

struct PackageScript
{
    std::wstring name = {};
    abi::PackageVersion version = {};
    bool isOk = true;
    bool hasName = true;  // otherwise the full name is a null string
    std::wstring user = {};
    Answers answers = {};
    Answer removal = {};  // code and text of the removal's result
    Ending end = {};
    Completion completion = {};
};

struct ClassScript
{
    Answers answers;
    bool needsApartment = false;
};

struct StoreScript : ClassScript
{
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
    ClassScript manager;
    StoreScript store;
    std::vector<PackageScript> packages;
    bool isBad = false;  // the file has errors; each one is in the record
};

// From C:\lab\standins\store.txt.
Script ReadScript();
}  // namespace lab
