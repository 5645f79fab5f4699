#include <stdio.h>
#include <vwincompat.h>

#if VLL_VERSION < 10000 || VLL_VERSION / 10000 != VLL_VERSION_MAJOR
#error "VLL_VERSION is no number to compare"
#endif

int main(void) {
    puts(VLL_VERSION_STRING);
    vllvwincompatMain();
    HANDLE event = vllCreateEvent(FALSE, TRUE, NULL);
    return vllWaitForSingleObject(event, 0) == WAIT_OBJECT_0 && vllCloseHandle(event) ? 0 : 1;
}
