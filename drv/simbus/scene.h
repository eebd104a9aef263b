// What the sensor sees: a still picture in its own pixels, with a moving bar and a frame counter over it where wanted, and
// the sensor's defects. The rows it hands out are whole sensor rows of 10-bit samples.
#pragma once

#include "control.h"
#include "platform.h"
#include "sensor.h"

namespace simbus {

struct DEFECT_PIXEL {
    USHORT X, Y, Value;
};

struct SENSOR_DEFECTS {
    ULONG Count;             // pixels, ordered by Y, X and place in the list
    ULONG ColumnCount;
    DEFECT_PIXEL *Pixels;
    USHORT *Columns;   // each pixel of them shows its sample XOR 0x155
    bool Row[kMaxRows];
};

struct SCENE {
    ULONG Model;
    bool Mono;
    ULONG Width, Height;         // of the sensor
    ULONG Kind;                  // kScene...
    bool Moving;                 // bar and counter
    USHORT Level;
    bool Frozen;
    ULONG FrozenFrame;
    USHORT *Base;                // Width * Height samples; null until the first row is asked for
    SENSOR_DEFECTS Defects;
};

void SceneInitialize(SCENE &Scene, ULONG Model, bool Mono);
void SceneFree(SCENE &Scene);

// Draws the picture if that has not been done; false when there is no memory for it.
_IRQL_requires_max_(PASSIVE_LEVEL)
bool ScenePrepare(SCENE &Scene);

// One row; Scratch has room for a row and is used when the row is not the still picture's own. ScenePrepare first.
const USHORT *SceneRow(const SCENE &Scene, ULONG Frame, ULONG Row, bool WithDefects, USHORT *Scratch);

// A new scene from a control request whose sizes have been checked; Pixels as the kind says. The old one stays on failure.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS SceneSet(SCENE &Scene, const SCENE_REQUEST &Request, const UCHAR *Pixels);

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS SceneSetDefects(SCENE &Scene, const DEFECT_RECORD *Records, ULONG Count);

// Which component a sensor pixel keeps: 0 red, 1 green, 2 blue.
constexpr ULONG MosaicComponent(ULONG Column, ULONG Row)
{
    return (Row & 1) == 0 ? (Column & 1) : 1 + (Column & 1);
}
static_assert(MosaicComponent(0, 0) == 0 && MosaicComponent(1, 0) == 1 && MosaicComponent(0, 1) == 1 &&
              MosaicComponent(1, 1) == 2);

constexpr ULONG Luminance(ULONG Red, ULONG Green, ULONG Blue) { return (77 * Red + 150 * Green + 29 * Blue) / 256; }
static_assert(Luminance(1023, 1023, 1023) == 1023);

// The chart's colour at a sensor pixel, 10 bits a component.
struct COLOUR {
    USHORT Part[3];
};
COLOUR ChartColour(ULONG Column, ULONG Row, ULONG Width, ULONG Height);

// Resamples a picture of Channels (1 or 3) bytes per pixel to the sensor.
struct PICTURE {
    const UCHAR *Pixels;
    ULONG Width, Height, Channels;
};
void ResamplePicture(const PICTURE &Picture, bool Mono, USHORT *Base, ULONG Width, ULONG Height);

}  // namespace simbus
