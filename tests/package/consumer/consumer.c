// The flat interface from C99. It must not search: this runs on the machine's own network.
#include <tavronet/api/UPnPApi.h>

int main(void)
{
    return UPnPDiscoverComplete() == UPnPNoNetwork && UPnPClose() == UPnPNoNetwork ? 0 : 1;
}
