// How a stand-in makes a call fail: the rules of C:\lab\standins\faults.txt that concern it. Which calls the campaign
// fails, and with what codes, is in cases/fault_injection/faults.py.
#pragma once
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace standin
{
struct Condition
{
    std::wstring key;
    std::wstring text;
    bool isContained;  // '~': the argument contains the text; ':' it is the text; both without regard to case
};

struct Rule
{
    std::wstring function;
    unsigned first = 1;  // number of the first call that it concerns
    bool isOpenEnded = true;
    std::vector<Condition> conditions;
    std::map<std::wstring, std::wstring> actions;
    unsigned matches = 0;  // calls so far that met the conditions

    bool ConcernsCall(const std::vector<std::pair<std::wstring, std::wstring>>& arguments) const;
    bool IsDue() const { return isOpenEnded ? matches >= first : matches == first; }
};

// One line of the file. False: not for this stand-in, or wrong, and then `fault` says why.
bool ParseRule(const std::wstring& line, Rule& rule, std::wstring& fault);
}  // namespace standin
