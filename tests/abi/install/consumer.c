#include <vwincompat.h>

int main(void) {
    vllvwincompatMain();
    HANDLE event = vllCreateEvent(FALSE, TRUE, NULL);
    return vllWaitForSingleObject(event, 0) == WAIT_OBJECT_0 && vllCloseHandle(event) ? 0 : 1;
}
