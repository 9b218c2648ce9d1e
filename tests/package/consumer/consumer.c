/* The flat interface from C99. It must not search: this runs on the machine's own network. */
#include <tavronet/api/UPnPApi.h>

#include <stdio.h>

int main(void)
{
    const int noNetwork = 3;
    const int complete = UPnPDiscoverComplete();
    const int closed = UPnPClose();
    if (complete != noNetwork || closed != noNetwork) {
        fprintf(stderr, "without a network: UPnPDiscoverComplete %d, UPnPClose %d\n", complete, closed);
        return 1;
    }
    return 0;
}
