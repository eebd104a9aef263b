// Picture files. What is written depends on the picture alone, so that the same picture gives the same bytes on every
// system.
#pragma once

#include "picture.h"

#include <filesystem>
#include <string>

enum class PictureFormat { png, pnm, raw };

// PNG: 8 bits a sample as they are; 10 bits spread over 16 (v << 6 | v >> 4) with the chunk that says 10 are
// significant.
std::vector<std::uint8_t> encodePng(const Picture &picture);
// PGM or PPM with the picture's own maximum: 10-bit samples stay what they are, in two bytes, high byte first.
std::vector<std::uint8_t> encodePnm(const Picture &picture);
Picture decodePng(std::span<const std::uint8_t> file); // of our own making; grey or RGB

void writeFile(const std::filesystem::path &path, std::span<const std::uint8_t> bytes); // makes the folder; throws Stop

// Writes an image under stem plus the format's ending and returns the path. A colour model's image is demosaiced for
// PNG and PNM unless the mosaic is asked for; raw is the driver's bytes.
std::filesystem::path saveImage(const vqt::Image &image, MosaicPhase phase, const std::string &stem,
                                PictureFormat format, bool keepMosaic);
std::filesystem::path savePicture(const Picture &picture, const std::string &stem, PictureFormat format);

// A picture from outside (JPEG, PNG, BMP, PNM) as 8-bit RGB for a simulated camera.
struct ScenePicture {
    std::uint32_t width = 0, height = 0;
    std::vector<std::uint8_t> rgb;
};
ScenePicture loadScene(const std::filesystem::path &path); // throws Stop
