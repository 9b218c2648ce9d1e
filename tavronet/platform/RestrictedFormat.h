#ifndef TAVRONET_PLATFORM_RESTRICTEDFORMAT_H
#define TAVRONET_PLATFORM_RESTRICTEDFORMAT_H

#include "tavronet/platform/String.h"

namespace tavronet
{

/// Fills a number into a pattern that comes from outside. Any text is a safe pattern.
///
/// "%%" becomes a percent sign. The first conversion that prints an int (d i u x X o c, with flags, and with
/// width and precision up to 64) becomes the number, as printf prints it. Every other character is copied:
/// later conversions too, and those of texts, pointers or counts.
CStringW RestrictedFormat(const CStringW& pattern, int number);

} // namespace tavronet

#endif
