// WINMM's own texts: the standard MCI error messages and the names it gives
// to values returned as resources (device types, modes, time formats).
#include "winmm.h"

namespace mm
{

namespace
{

struct Text {
    UINT id;
    const char16_t *text;
};

const Text kErrors[] = {
    {MCIERR_INVALID_DEVICE_ID, u"Invalid MCI device ID. Use the ID returned when opening the MCI device."},
    {MCIERR_UNRECOGNIZED_KEYWORD, u"The driver cannot recognize the specified command parameter."},
    {MCIERR_UNRECOGNIZED_COMMAND, u"The driver cannot recognize the specified command."},
    {MCIERR_HARDWARE, u"There is a problem with your media device. Make sure it is working correctly or contact the "
                      u"device manufacturer."},
    {MCIERR_INVALID_DEVICE_NAME, u"The specified device is not open or is not recognized by MCI."},
    {MCIERR_OUT_OF_MEMORY, u"Not enough memory available for this task. Quit one or more applications to increase "
                           u"available memory, and then try again."},
    {MCIERR_DEVICE_OPEN, u"The device name is already being used as an alias by this application. Use a unique alias."},
    {MCIERR_CANNOT_LOAD_DRIVER, u"There is an undetectable problem in loading the specified device driver."},
    {MCIERR_MISSING_COMMAND_STRING, u"No command was specified."},
    {MCIERR_PARAM_OVERFLOW,
     u"The output string was too large to fit in the return buffer. Increase the size of the buffer."},
    {MCIERR_MISSING_STRING_ARGUMENT,
     u"The specified command requires a character-string parameter. Please provide one."},
    {MCIERR_BAD_INTEGER, u"The specified integer is invalid for this command."},
    {MCIERR_PARSER_INTERNAL, u"The device driver returned an invalid return type. Check with the device manufacturer "
                             u"about obtaining a new driver."},
    {MCIERR_DRIVER_INTERNAL,
     u"There is a problem with the device driver. Check with the device manufacturer about obtaining a new driver."},
    {MCIERR_MISSING_PARAMETER, u"The specified command requires a parameter. Please supply one."},
    {MCIERR_UNSUPPORTED_FUNCTION, u"The MCI device you are using does not support the specified command."},
    {MCIERR_FILE_NOT_FOUND, u"Cannot find the specified file. Make sure the path and filename are correct."},
    {MCIERR_DEVICE_NOT_READY, u"The device driver is not ready."},
    {MCIERR_INTERNAL, u"A problem occurred in initializing MCI. Try restarting Windows."},
    {MCIERR_DRIVER, u"There is a problem with the device driver. The driver has closed. Cannot access error."},
    {MCIERR_CANNOT_USE_ALL, u"Cannot use 'all' as the device name with the specified command."},
    {MCIERR_MULTIPLE, u"Errors occurred in more than one device. Specify each command and device separately to "
                      u"determine which device caused the error."},
    {MCIERR_EXTENSION_NOT_FOUND, u"Cannot determine the device type from the given filename extension."},
    {MCIERR_OUTOFRANGE, u"The specified parameter is out of range for the specified command."},
    {MCIERR_FLAGS_NOT_COMPATIBLE, u"The specified parameters cannot be used together."},
    {MCIERR_FILE_NOT_SAVED, u"Cannot save the specified file. Make sure you have enough disk space or are still "
                            u"connected to the network."},
    {MCIERR_DEVICE_TYPE_REQUIRED, u"Cannot find the specified device. Make sure it is installed or that the device "
                                  u"name is spelled correctly."},
    {MCIERR_DEVICE_LOCKED, u"The specified device is now being closed. Wait a few seconds, and then try again."},
    {MCIERR_DUPLICATE_ALIAS, u"The specified alias is already being used in this application. Use a unique alias."},
    {MCIERR_BAD_CONSTANT, u"The specified parameter is invalid for this command."},
    {MCIERR_MUST_USE_SHAREABLE, u"The device driver is already in use. To share it, use the 'shareable' parameter "
                                u"with each 'open' command."},
    {MCIERR_MISSING_DEVICE_NAME,
     u"The specified command requires an alias, file, driver, or device name. Please supply one."},
    {MCIERR_BAD_TIME_FORMAT,
     u"The specified value for the time format is invalid. Refer to the MCI documentation for valid formats."},
    {MCIERR_NO_CLOSING_QUOTE,
     u"A closing double-quotation mark is missing from the parameter value. Please supply one."},
    {MCIERR_DUPLICATE_FLAGS, u"A parameter or value was specified twice. Only specify it once."},
    {MCIERR_INVALID_FILE, u"The specified file cannot be played on the specified MCI device. The file may be "
                          u"corrupt, or not in the correct format."},
    {MCIERR_NULL_PARAMETER_BLOCK, u"A null parameter block was passed to MCI."},
    {MCIERR_UNNAMED_RESOURCE, u"Cannot save an unnamed file. Supply a filename."},
    {MCIERR_NEW_REQUIRES_ALIAS, u"You must specify an alias when using the 'new' parameter."},
    {MCIERR_NOTIFY_ON_AUTO_OPEN, u"Cannot use the 'notify' flag with auto-opened devices."},
    {MCIERR_NO_ELEMENT_ALLOWED, u"Cannot use a filename with the specified device."},
    {MCIERR_NONAPPLICABLE_FUNCTION,
     u"Cannot carry out the commands in the order specified. Correct the command sequence, and then try again."},
    {MCIERR_ILLEGAL_FOR_AUTO_OPEN, u"Cannot carry out the specified command on an auto-opened device. Wait until the "
                                   u"device is closed, and then try again."},
    {MCIERR_FILENAME_REQUIRED, u"The filename is invalid. Make sure the filename is not longer than 8 characters, "
                               u"followed by a period and an extension."},
    {MCIERR_EXTRA_CHARACTERS, u"Cannot specify extra characters after a string enclosed in quotation marks."},
    {MCIERR_DEVICE_NOT_INSTALLED, u"The specified device is not installed on the system. Use the Drivers option in "
                                  u"Control Panel to install the device."},
    {MCIERR_GET_CD, u"Cannot access the specified file or MCI device. Try changing directories or restarting your "
                    u"computer."},
    {MCIERR_SET_CD, u"Cannot access the specified file or MCI device because the application cannot change "
                    u"directories."},
    {MCIERR_SET_DRIVE, u"Cannot access specified file or MCI device because the application cannot change drives."},
    {MCIERR_DEVICE_LENGTH, u"Specify a device or driver name that is less than 79 characters."},
    {MCIERR_DEVICE_ORD_LENGTH, u"Specify a device or driver name that is less than 69 characters."},
    {MCIERR_NO_INTEGER, u"The specified command requires an integer parameter. Please provide one."},
    {MCIERR_NO_WINDOW, u"There is no display window."},
    {MCIERR_CREATEWINDOW, u"Could not create or use window."},
    {MCIERR_FILE_READ, u"Cannot read the specified file. Make sure the file is still present, or check your disk or "
                       u"network connection."},
    {MCIERR_FILE_WRITE, u"Cannot write to the specified file. Make sure you have enough disk space or are still "
                        u"connected to the network."},
};

const Text kCore[] = {
    {MCI_DEVTYPE_VCR, u"vcr"},
    {MCI_DEVTYPE_VIDEODISC, u"videodisc"},
    {MCI_DEVTYPE_OVERLAY, u"overlay"},
    {MCI_DEVTYPE_CD_AUDIO, u"cdaudio"},
    {MCI_DEVTYPE_DAT, u"dat"},
    {MCI_DEVTYPE_SCANNER, u"scanner"},
    {MCI_DEVTYPE_ANIMATION, u"animation"},
    {MCI_DEVTYPE_DIGITAL_VIDEO, u"digitalvideo"},
    {MCI_DEVTYPE_OTHER, u"other"},
    {MCI_DEVTYPE_WAVEFORM_AUDIO, u"waveaudio"},
    {MCI_DEVTYPE_SEQUENCER, u"sequencer"},
    {MCI_MODE_NOT_READY, u"not ready"},
    {MCI_MODE_STOP, u"stopped"},
    {MCI_MODE_PLAY, u"playing"},
    {MCI_MODE_RECORD, u"recording"},
    {MCI_MODE_SEEK, u"seeking"},
    {MCI_MODE_PAUSE, u"paused"},
    {MCI_MODE_OPEN, u"open"},
    {MCI_STRING_OFFSET + 19, u"true"},
    {MCI_STRING_OFFSET + 20, u"false"},
    {MCI_STRING_OFFSET + 21, u"milliseconds"},
    {MCI_STRING_OFFSET + 22, u"hms"},
    {MCI_STRING_OFFSET + 23, u"msf"},
    {MCI_STRING_OFFSET + 24, u"frames"},
    {MCI_STRING_OFFSET + 25, u"smpte 24"},
    {MCI_STRING_OFFSET + 26, u"smpte 25"},
    {MCI_STRING_OFFSET + 27, u"smpte 30"},
    {MCI_STRING_OFFSET + 28, u"smpte 30 drop"},
    {MCI_STRING_OFFSET + 29, u"bytes"},
    {MCI_STRING_OFFSET + 30, u"samples"},
    {MCI_STRING_OFFSET + 31, u"tmsf"},
};

template <size_t N> const char16_t *Lookup(const Text (&list)[N], UINT id)
{
    for (const Text &t : list)
        if (t.id == id)
            return t.text;
    return nullptr;
}

} // namespace

const char16_t *CoreString(UINT id)
{
    return Lookup(kCore, id);
}
const char16_t *ErrorText(UINT code)
{
    return Lookup(kErrors, code);
}

} // namespace mm
