// The sensor's defective pixels: the list from the camera's flash, and the repair of the images that leave the driver.
#pragma once

#include "geometry.h"

// The flash holds the list in front of address 0x8000, five bytes a record; more do not fit below it.
constexpr ULONG kBadPixFlashEnd = 0x8000;
constexpr ULONG kBadPixFlashRecord = 5;
constexpr ULONG kBadPixLimit = kBadPixFlashEnd / kBadPixFlashRecord;
static_assert(kBadPixLimit == 6553);

// BADPIX_RECORD::BpType.
constexpr UCHAR kBadPixRuleBits = 0x03; // how a pixel is replaced; 3: a whole column or row
constexpr UCHAR kBadPixLine = 3;
constexpr UCHAR kBadPixUnlessClose = 0x01;
constexpr UCHAR kBadPixUnlessClose2 = 0x02;
constexpr UCHAR kBadPixDiagonal = 0x04; // the neighbours of its colour are the diagonal ones
constexpr UCHAR kBadPixColour = 0x80;   // the sensor has a mosaic of 2 x 2 colours

// Neighbour masks (BADPIX_RECORD::BpPosMask), one bit a position:
//     0 1 2
//     3 . 4     at distance 1; a colour record without kBadPixDiagonal uses 1, 3, 4 and 6 at distance 2
//     5 6 7
constexpr UCHAR kMaskAll = 0xFF;
constexpr UCHAR kMaskCross = 0x5A;
constexpr UCHAR kMaskDiagonals = 0xA5;

// Loads the list and its masks, in place of an earlier one. The outcome is BadPixNum. Takes BufferLock.
_IRQL_requires_max_(PASSIVE_LEVEL) void LoadBadPix(PDEVICE_OBJECT DeviceObject);

// Reads Count records into a new array in BadPix. Returns the number read: a failed read keeps what came before it.
_IRQL_requires_max_(PASSIVE_LEVEL) ULONG LoadBadPixFrom1stFlash(PDEVICE_OBJECT DeviceObject, ULONG Count);

// Finds each record's usable neighbours: those of its colour that are not listed themselves.
_IRQL_requires_max_(DISPATCH_LEVEL) void AnalizeBadPix(PDEVICE_OBJECT DeviceObject);

// Takes the position of B out of A's mask when B is a neighbour of A and of its colour.
_IRQL_requires_max_(DISPATCH_LEVEL) void UpdateBpPosMask(BADPIX_RECORD *A, const BADPIX_RECORD *B);

// Frees the list. Legal at any stage.
_IRQL_requires_max_(PASSIVE_LEVEL) void FreeBadPix(DEVICE_EXTENSION *DevExt);

// Repairs an image in place. The first two take the geometry in force and an image no larger than a frame buffer; the
// caller holds BufferLock, so that the list stays.
_IRQL_requires_max_(DISPATCH_LEVEL) void FixBadPix8(PDEVICE_OBJECT DeviceObject, PUCHAR Image);
_IRQL_requires_max_(DISPATCH_LEVEL) void FixBadPix10(PDEVICE_OBJECT DeviceObject, PUSHORT Image);
_IRQL_requires_max_(DISPATCH_LEVEL) void FixBadPix8(DEVICE_EXTENSION *DevExt, const FRAME_GEOMETRY &Geometry,
                                                    PUCHAR Image);
_IRQL_requires_max_(DISPATCH_LEVEL) void FixBadPix10(DEVICE_EXTENSION *DevExt, const FRAME_GEOMETRY &Geometry,
                                                     PUSHORT Image);
