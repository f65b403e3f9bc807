// The parts of a Windows command line the stub needs, by the rules the C runtime uses to split
// it, without the cost of the system's own splitter under Wine.
#pragma once

#include <string>
#include <vector>

namespace mirell::stub {

// Everything after the program name, as it stands (with its leading blank, if any), so that it
// can be passed on unchanged.
std::wstring CommandLineTail(const std::wstring& command_line);

// The arguments of a command line tail, unquoted by the C runtime's rules.
std::vector<std::wstring> SplitArguments(const std::wstring& tail);

// The URL among the arguments: the last one that holds "://"; empty when none does.
std::wstring FindUrl(const std::vector<std::wstring>& arguments);

}  // namespace mirell::stub
