/*
 * Virtual cameras inside the process of a program that uses the library, for its tests. In C or any language that can call C:
 *
 *   char error[512];
 *   if (KOVSimAttach("QuartzCol,LapisMono_C;scene=flat:2000;rate=5", error, sizeof error) != 0) puts(error);
 *   n = KOVGetNumOfConnectedCameras();    ...    KOVCloseCamera(0);
 *   KOVSimDetach();
 *
 * In C++ a bus of one's own gives everything: faults, registers, guide pins, counters (see VirtualBus.h):
 *
 *   kovsim::VirtualBus bus;
 *   kovsim::VirtualCamera& camera = bus.Plug({});
 *   kovsim::Attach(&bus);
 *
 * The library takes what is attached in the place of USB from its next enumeration or open on. No camera may be open when
 * something is attached or detached; calls must not overlap.
 */
#ifndef KOVSIM_IN_PROCESS_H
#define KOVSIM_IN_PROCESS_H

#if defined(_WIN32)
#  define KOVSIM_API __declspec(dllexport)
#else
#  define KOVSIM_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* text: the models, then options, as kovsim takes them (kovsim run --help): "QuartzCol;seed=7;noise=0". Cameras that an
 * earlier call attached go. 0, or -1 with the reason in error, which has room for size bytes and is always zero-ended. */
KOVSIM_API int KOVSimAttach(const char* text, char* error, int size);

/* Back to the cameras on USB. */
KOVSIM_API void KOVSimDetach(void);

/* Pulls out a camera of KOVSimAttach, and plugs it in again: it has the registers of a power-on and another address. index
 * counts in the order of the text, from 0. 0, or -1 when there is none. A camera may be open. */
KOVSIM_API int KOVSimUnplug(int index);
KOVSIM_API int KOVSimReplug(int index);

#ifdef __cplusplus
}

namespace kovsim {

class VirtualBus;
// The bus stays the caller's and must outlive its being attached. nullptr: back to the cameras on USB.
KOVSIM_API void Attach(VirtualBus* bus);

}  // namespace kovsim
#endif

#endif
