#include "capture/Forms.h"

namespace {

constexpr uint32_t MIB = 0x100000;

using A = Automation;
using L = LongWay;

// clang-format off
constexpr CaptureForm g_Forms[] = {
//    family            small  chunk    marks            cap    automation   queue  long exposure first fixed share
    { Family::Kyanite,  false, MIB,     Marks::A,        false, A::Common,  false, L::Kyanite,    0,    0, 100 },
    { Family::Quartz,   false, MIB,     Marks::A,        true,  A::Common,  false, L::Gate,    1000,  200,   0 },
    { Family::Pyrite,   false, MIB,     Marks::A,        true,  A::Common,  false, L::Gate,    1000,  200,   0 },
    { Family::Marble,   false, MIB,     Marks::A,        false, A::Common,  false, L::Gate,    1000,    0, 100 },
    { Family::Nephrite, false, MIB,     Marks::A,        false, A::Common,  false, L::Gate,    1000,    0, 100 },
    { Family::Onyx,     false, MIB,     Marks::A,        false, A::Common,  false, L::Gate,    1000,    0, 100 },
    { Family::Beryl,    false, MIB,     Marks::A,        false, A::Common,  false, L::Gate,       0,    0, 100 },
    { Family::Lapis,    false, MIB,     Marks::A,        false, A::Common,  false, L::Lapis,      0,    0, 500 },
    { Family::Ebony,    false, MIB,     Marks::A,        true,  A::Common,  false, L::Ebony,      0,    0, 100 },
    { Family::Flint,    false, MIB,     Marks::A,        true,  A::Common,  false, L::Ebony,      0,    0, 100 },
    { Family::Halite,   false, MIB,     Marks::A,        true,  A::Common,  false, L::Ebony,      0,    0, 100 },
    { Family::Jasper,   false, MIB,     Marks::A,        true,  A::Common,  false, L::Jasper,     0,  200,   0 },
    { Family::GarnetS,  false, MIB,     Marks::BAndTail, false, A::Common,  false, L::Garnet,     0,  500,   0 },
    { Family::Garnet,   true,  307200,  Marks::B,        true,  A::Common,  false, L::Garnet,     0,  500,   0 },
    { Family::Iolite,   true,  307200,  Marks::B,        true,  A::Iolite,  false, L::Iolite,  2000, 2000,   0 },
    { Family::Cobalt,   true,  0x5B000, Marks::B,        true,  A::Cobalt,  true,  L::Cobalt,     0,  500,   0 },
    { Family::Dunite,   true,  480000,  Marks::B,        true,  A::OneShot, false, L::Dunite,  2000, 2000,   0 },
    { Family::Agate,    true,  480000,  Marks::B,        true,  A::OneShot, false, L::Dunite,  2000, 2000,   0 },
};
// clang-format on

static_assert(sizeof g_Forms / sizeof g_Forms[0] == 18, "one row a family");

}  // namespace

const CaptureForm& FormOf(Family family)
{
    for (const CaptureForm& f : g_Forms)
        if (f.family == family)
            return f;
    return g_Forms[0];
}
