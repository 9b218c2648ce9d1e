#pragma once

#include <tavronet/platform/Types.h>

namespace command
{

class Output;
struct Options;

/// The commands. Each prints what it found and ends early, with 6, when `interrupt` is signalled.
/// @return a result code of the flat interface (UPnPApi.h), which becomes the exit code.
int RunDiscover(const Options& options, const Output& output, HANDLE interrupt);
int RunStatus(const Options& options, const Output& output, HANDLE interrupt);
int RunList(const Options& options, const Output& output, HANDLE interrupt);
int RunAdd(const Options& options, const Output& output, HANDLE interrupt);
int RunAddRange(const Options& options, const Output& output, HANDLE interrupt);
int RunDelete(const Options& options, const Output& output, HANDLE interrupt);
int RunDeleteRange(const Options& options, const Output& output, HANDLE interrupt);
int RunWatch(const Options& options, const Output& output, HANDLE interrupt);
int RunDoctor(const Options& options, const Output& output, HANDLE interrupt);

} // namespace command
