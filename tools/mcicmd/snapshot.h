// .snapshot: what the driver's display window shows, saved as an image file,
// so that put, where and window can be seen on a machine without a screen.
#pragma once

#include <string>

namespace mcicmd
{

// Saves the client area of the driver's display window as a 24-bit bitmap
// file, or as a PNG image when `file` ends in ".png". False with a message
// in *error when there is no display window or the file cannot be written.
bool SaveDisplaySnapshot(const std::string &file, std::string *error);

} // namespace mcicmd
