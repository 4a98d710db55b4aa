/* A program that links the import library. The virtual camera comes as it does under kovsim: kovsim.dll is in the
 * process before the first use of USB, so only one of the two parts runs in a process. */
#include "KOVCamera2.h"
#define FN(name) name
#include "Calls.h"

#include <windows.h>

int main(void)
{
    if (getenv("KOVSIM") && LoadLibraryA("kovsim.dll"))
        TakePictures();
    else
        CallAllWithoutCamera();
    printf("%d failures\n", g_failures);
    return g_failures != 0;
}
