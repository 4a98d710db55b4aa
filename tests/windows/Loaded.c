/* A program that knows the library by its file and its functions by their names. */
#include "KOVCamera2.h"

#include <stdio.h>
#include <windows.h>

static HMODULE g_hLibrary;

static void (*Find(const char* name))(void)
{
    FARPROC p = GetProcAddress(g_hLibrary, name);
    if (!p) {
        printf("%s is not exported under its name\n", name);
        ExitProcess(1);
    }
    return (void (*)(void))p;
}
#define FN(name) ((__typeof__(&name))Find(#name))
#include "Calls.h"

int main(int argc, char** argv)
{
    g_hLibrary = LoadLibraryA(argc > 1 ? argv[1] : "KOVCamera2.dll");
    if (!g_hLibrary) {
        printf("KOVCamera2.dll cannot be loaded: error %lu\n", GetLastError());
        return 1;
    }
    if (getenv("KOVSIM") && LoadLibraryA("kovsim.dll"))
        TakePictures();
    else
        CallAllWithoutCamera();
    FreeLibrary(g_hLibrary);
    printf("%d failures\n", g_failures);
    return g_failures != 0;
}
