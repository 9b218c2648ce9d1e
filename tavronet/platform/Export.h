/// TAVRONET_API marks what the shared library exports; everything else stays hidden.
#ifndef TAVRONET_PLATFORM_EXPORT_H
#define TAVRONET_PLATFORM_EXPORT_H

#define TAVRONET_API __attribute__((visibility("default")))

#endif
