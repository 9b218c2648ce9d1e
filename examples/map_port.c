/* Maps TCP port 8080 of the gateway behind one of this machine's addresses, with the flat interface. */

#include <stdio.h>
#include <tavronet/api/UPnPApi.h>

int main(int count, char** arguments)
{
    const char* local = count > 1 ? arguments[1] : "192.168.1.100";
    int result = UPnPSetDialect(1);
    if (result == 0)
        result = UPnPDiscover(true, NULL); /* listens for 10 s, pumping this thread's messages */
    if (result == 0)
        result = UPnPAddPortMap(NULL, local, 8080, "example", "TCP");
    printf("result %d\n", result);
    return result;
}
