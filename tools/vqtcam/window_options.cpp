#include "window_options.h"

void WindowOptions::addTo(CLI::App &command)
{
    command.add_option("--x", x, "First sensor column of the window")->group("Window");
    command.add_option("--y", y, "First sensor row")->group("Window");
    command.add_option("--width", width, "Window width in sensor pixels, before decimation")->group("Window");
    command.add_option("--height", height, "Window height in sensor rows")->group("Window");
    command.add_option("--decimation", decimation, "1, 2, 4, 8 (models 1 and 2); 1 to 8 or -2, -3, -4 (model 3)")
        ->group("Window");
    command.add_flag("--flip-x", flipX, "Mirror the columns")->group("Window");
    command.add_flag("--flip-y", flipY, "Mirror the rows")->group("Window");
    command.add_option("--bits", bits, "Bits a pixel, 8 or 10")->check(CLI::IsMember({8, 10}))->group("Window");
    command.add_option("--setting", setting, "Alternate setting of the stream, 1 or 2")
        ->check(CLI::IsMember({1, 2}))
        ->group("Window");
}

// The driver aligns what it is given, so the window is asked for again.
vqt::Geometry WindowOptions::apply(vqt::Camera &camera) const
{
    if (setting)
        camera.setDefAlt(static_cast<std::uint8_t>(*setting)).value();
    if (bits)
        camera.setBitsPerPixel(*bits).value();
    vqt::Geometry geometry = camera.getFrameParameters().value();
    if (x || y || width || height || decimation || flipX || flipY) {
        // A window that starts further in and names no size goes to the sensor's edge.
        if (x && !width)
            geometry.width -= *x - geometry.startX;
        if (y && !height)
            geometry.height -= *y - geometry.startY;
        geometry.startX = x.value_or(geometry.startX);
        geometry.startY = y.value_or(geometry.startY);
        geometry.width = width.value_or(geometry.width);
        geometry.height = height.value_or(geometry.height);
        geometry.decimation = decimation.value_or(geometry.decimation);
        geometry.flipX = flipX;
        geometry.flipY = flipY;
        camera.setFrameParameters(geometry).value();
        geometry = camera.getFrameParameters().value();
    }
    return geometry;
}

void PictureOptions::addTo(CLI::App &command, const std::string &defaultOut, const std::string &outHelp)
{
    out = defaultOut;
    command.add_option("-o,--out", out, outHelp)->capture_default_str()->group("Files");
    command.add_option("--format", format, "png, pnm (PGM or PPM) or raw (the driver's bytes)")
        ->check(CLI::IsMember({"png", "pnm", "pgm", "raw"}))
        ->capture_default_str()
        ->group("Files");
    command.add_flag("--mosaic", mosaic, "Write a colour model's image as the mosaic that it is")->group("Files");
}

PictureFormat PictureOptions::kind() const
{
    return format == "png" ? PictureFormat::png : format == "raw" ? PictureFormat::raw : PictureFormat::pnm;
}
