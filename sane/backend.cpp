// The SANE entry points of the backend and its options. Loaded by SANE's dll
// backend it answers as "sane_tamrix_*" and names devices without a prefix;
// loaded directly as libsane.so.1 it answers as "sane_*" and names them
// "tamrix:...", so that "scanimage -d tamrix:..." means the same either way.
#include "debug.h"
#include "devices.h"
#include "scanner.h"

#include <sane/sane.h>
#include <sane/saneopts.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#define TAMRIX_EXPORT extern "C" __attribute__((visibility("default")))

namespace tamrix_sane
{

namespace
{

constexpr char kPrefix[] = "tamrix";

enum Option {
    kNumOptions,
    kModeGroup,
    kMode,
    kDepth,
    kResolution,
    kHalftonePattern,
    kGeometryGroup,
    kTlX,
    kTlY,
    kBrX,
    kBrY,
    kEnhancementGroup,
    kBrightness,
    kContrast,
    kGamma,
    kTint,
    kSaturation,
    kEdge,
    kNoise,
    kOptionCount
};

const char *const kPatternNames[] = {"Dither 1, pattern 1",
                                     "Dither 1, pattern 2",
                                     "Dither 1, pattern 3",
                                     "Dither 1, pattern 4",
                                     "Dither 1, pattern 5",
                                     "Dither 1, pattern 6",
                                     "Dither 1, pattern 7",
                                     "Dither 1, pattern 8",
                                     "Dither 2",
                                     "Dither 3"};
const int kPatternCodes[] = {1, 2, 3, 4, 5, 6, 7, 8, 16, 32};
const char *const kGammaNames[] = {"CRT 1", "CRT 2", "Printer 1", "Printer 2", "None"};
const SANE_Range kLevelRange = {0, 9, 1};

// Which extended settings the scan-mode dialog offers on a model.
struct ModelRules {
    bool brightnessGammaEdge;
    bool noise;
    bool tint;       // colour scans only
    bool saturation; // colour scans only
};

ModelRules RulesOf(unsigned model)
{
    switch (model) {
    case 1:
        return {false, false, false, false};
    case 2:
        return {true, true, false, false};
    case 3:
        return {true, true, true, false};
    case 4:
        return {true, true, true, true};
    case 5:
        return {true, false, true, true};
    default:
        return {true, false, false, false};
    }
}

SANE_Fixed Millimetres(int tenths)
{
    return static_cast<SANE_Fixed>(std::lround(tenths / 10.0 * (1 << SANE_FIXED_SCALE_SHIFT)));
}

int Log2(int v)
{
    int n = 0;
    while (v > 1) {
        v >>= 1;
        n++;
    }
    return n;
}

struct Handle {
    std::unique_ptr<Scanner> scanner;
    SANE_Option_Descriptor desc[kOptionCount] = {};
    // Option values.
    SANE_Word count = kOptionCount;
    std::string mode;
    SANE_Word depth = 8;
    SANE_Word resolution = 90;
    std::string pattern = kPatternNames[8];
    SANE_Fixed tlX = 0, tlY = 0, brX = 0, brY = 0;
    SANE_Word brightness = 5, contrast = 5, tint = 5, saturation = 5;
    std::string gamma = kGammaNames[0];
    SANE_Bool edge = SANE_FALSE, noise = SANE_FALSE;
    // Constraints.
    std::vector<SANE_String_Const> modes, patterns, gammas;
    std::vector<SANE_Word> grayDepths, colorDepths;
    SANE_Range resolutionRange{}, xRange{}, yRange{}, contrastRange{};
    volatile bool started = false;
    bool nonBlocking = false;

    void Build();
    void UpdateActive();
    ScanRequest Request() const;
    SANE_Status Get(int option, void *value) const;
    SANE_Status Set(int option, void *value, SANE_Int *info);
};

void Describe(SANE_Option_Descriptor &d, const char *name, const char *title, const char *text, SANE_Value_Type type,
              SANE_Unit unit = SANE_UNIT_NONE)
{
    d.name = name;
    d.title = title;
    d.desc = text;
    d.type = type;
    d.unit = unit;
    d.size = type == SANE_TYPE_STRING ? 32 : type == SANE_TYPE_GROUP ? 0 : static_cast<SANE_Int>(sizeof(SANE_Word));
    d.cap = type == SANE_TYPE_GROUP ? 0 : SANE_CAP_SOFT_SELECT | SANE_CAP_SOFT_DETECT;
    d.constraint_type = SANE_CONSTRAINT_NONE;
}

void Handle::Build()
{
    const Capabilities &c = scanner->caps();
    const DeviceEntry &e = scanner->entry();
    const ModelRules rules = RulesOf(e.modelNumber);

    modes = {SANE_VALUE_SCAN_MODE_LINEART};
    if (c.canHalftone)
        modes.push_back(SANE_VALUE_SCAN_MODE_HALFTONE);
    if (c.maxColorStep > 2)
        modes.push_back(SANE_VALUE_SCAN_MODE_GRAY);
    if (c.canScanColor)
        modes.push_back(SANE_VALUE_SCAN_MODE_COLOR);
    modes.push_back(nullptr);
    mode = modes.size() > 2 && c.maxColorStep > 2 ? SANE_VALUE_SCAN_MODE_GRAY : SANE_VALUE_SCAN_MODE_LINEART;

    const int maxBits = std::max(1, Log2(c.maxColorStep));
    grayDepths = {0};
    for (int b = 2; b <= maxBits; b++)
        grayDepths.push_back(b);
    grayDepths[0] = static_cast<SANE_Word>(grayDepths.size() - 1);
    colorDepths = {0};
    for (int b = 1; b <= maxBits; b++)
        colorDepths.push_back(b);
    colorDepths[0] = static_cast<SANE_Word>(colorDepths.size() - 1);
    depth = maxBits;

    // Model 4 on RS-232C and GP-IB has no third dither method.
    const size_t patternCount = e.modelNumber == 4 && e.interface != 1 ? 9 : 10;
    patterns.assign(kPatternNames, kPatternNames + patternCount);
    patterns.push_back(nullptr);
    gammas.assign(std::begin(kGammaNames), std::end(kGammaNames));
    gammas.push_back(nullptr);

    resolutionRange = {c.minResolution, c.maxResolution, c.resolutionStep};
    resolution = std::clamp(90, c.minResolution, c.maxResolution);
    resolution -= (resolution - c.minResolution) % c.resolutionStep;
    xRange = {Millimetres(c.minStartX), Millimetres(c.maxWidth), 0};
    yRange = {0, Millimetres(c.maxLength), 0};
    contrastRange = {c.minContrast, c.maxContrast, c.contrastStep};
    tlX = xRange.min;
    brX = xRange.max;
    tlY = yRange.min;
    brY = yRange.max;

    SANE_Option_Descriptor *d = desc;
    Describe(d[kNumOptions], SANE_NAME_NUM_OPTIONS, SANE_TITLE_NUM_OPTIONS, SANE_DESC_NUM_OPTIONS, SANE_TYPE_INT);
    d[kNumOptions].cap = SANE_CAP_SOFT_DETECT;
    Describe(d[kModeGroup], "", SANE_TITLE_SCAN_MODE, "", SANE_TYPE_GROUP);
    Describe(d[kMode], SANE_NAME_SCAN_MODE, SANE_TITLE_SCAN_MODE, SANE_DESC_SCAN_MODE, SANE_TYPE_STRING);
    d[kMode].constraint_type = SANE_CONSTRAINT_STRING_LIST;
    d[kMode].constraint.string_list = modes.data();
    Describe(d[kDepth], SANE_NAME_BIT_DEPTH, SANE_TITLE_BIT_DEPTH,
             "Bits per sample the scanner delivers (2 to the power of this many levels); the frame carries them "
             "widened to 8 bits",
             SANE_TYPE_INT, SANE_UNIT_BIT);
    d[kDepth].constraint_type = SANE_CONSTRAINT_WORD_LIST;
    Describe(d[kResolution], SANE_NAME_SCAN_RESOLUTION, SANE_TITLE_SCAN_RESOLUTION, SANE_DESC_SCAN_RESOLUTION,
             SANE_TYPE_INT, SANE_UNIT_DPI);
    d[kResolution].constraint_type = SANE_CONSTRAINT_RANGE;
    d[kResolution].constraint.range = &resolutionRange;
    Describe(d[kHalftonePattern], SANE_NAME_HALFTONE_PATTERN, SANE_TITLE_HALFTONE_PATTERN, SANE_DESC_HALFTONE_PATTERN,
             SANE_TYPE_STRING);
    d[kHalftonePattern].constraint_type = SANE_CONSTRAINT_STRING_LIST;
    d[kHalftonePattern].constraint.string_list = patterns.data();

    Describe(d[kGeometryGroup], "", SANE_I18N("Geometry"), "", SANE_TYPE_GROUP);
    Describe(d[kTlX], SANE_NAME_SCAN_TL_X, SANE_TITLE_SCAN_TL_X, SANE_DESC_SCAN_TL_X, SANE_TYPE_FIXED, SANE_UNIT_MM);
    Describe(d[kTlY], SANE_NAME_SCAN_TL_Y, SANE_TITLE_SCAN_TL_Y, SANE_DESC_SCAN_TL_Y, SANE_TYPE_FIXED, SANE_UNIT_MM);
    Describe(d[kBrX], SANE_NAME_SCAN_BR_X, SANE_TITLE_SCAN_BR_X, SANE_DESC_SCAN_BR_X, SANE_TYPE_FIXED, SANE_UNIT_MM);
    Describe(d[kBrY], SANE_NAME_SCAN_BR_Y, SANE_TITLE_SCAN_BR_Y, SANE_DESC_SCAN_BR_Y, SANE_TYPE_FIXED, SANE_UNIT_MM);
    for (int o : {kTlX, kBrX}) {
        d[o].constraint_type = SANE_CONSTRAINT_RANGE;
        d[o].constraint.range = &xRange;
    }
    for (int o : {kTlY, kBrY}) {
        d[o].constraint_type = SANE_CONSTRAINT_RANGE;
        d[o].constraint.range = &yRange;
    }

    Describe(d[kEnhancementGroup], "", SANE_I18N("Enhancement"), "", SANE_TYPE_GROUP);
    Describe(d[kBrightness], SANE_NAME_BRIGHTNESS, SANE_TITLE_BRIGHTNESS, SANE_DESC_BRIGHTNESS, SANE_TYPE_INT);
    Describe(d[kContrast], SANE_NAME_CONTRAST, SANE_TITLE_CONTRAST, SANE_DESC_CONTRAST, SANE_TYPE_INT);
    Describe(d[kGamma], "gamma-correction", SANE_I18N("Gamma correction"),
             SANE_I18N("Gamma curve of the scanner: for CRT displays, for printers, or none"), SANE_TYPE_STRING);
    d[kGamma].constraint_type = SANE_CONSTRAINT_STRING_LIST;
    d[kGamma].constraint.string_list = gammas.data();
    Describe(d[kTint], "tint", SANE_I18N("Tint"), SANE_I18N("Colour tint, from red (0) to green (9)"), SANE_TYPE_INT);
    Describe(d[kSaturation], "saturation", SANE_I18N("Saturation"),
             SANE_I18N("Colour saturation, from weak (0) to strong (9)"), SANE_TYPE_INT);
    for (int o : {kBrightness, kTint, kSaturation}) {
        d[o].constraint_type = SANE_CONSTRAINT_RANGE;
        d[o].constraint.range = &kLevelRange;
    }
    d[kContrast].constraint_type = SANE_CONSTRAINT_RANGE;
    d[kContrast].constraint.range = &contrastRange;
    Describe(d[kEdge], "edge-enhancement", SANE_I18N("Edge enhancement"), SANE_I18N("Sharpen the edges in the image"),
             SANE_TYPE_BOOL);
    Describe(d[kNoise], "noise-reduction", SANE_I18N("Noise reduction"), SANE_I18N("Reduce noise in the image"),
             SANE_TYPE_BOOL);

    // Settings the model does not have stay inactive whatever the mode.
    if (!rules.brightnessGammaEdge)
        for (int o : {kBrightness, kGamma, kEdge})
            d[o].cap |= SANE_CAP_INACTIVE;
    if (!rules.noise)
        d[kNoise].cap |= SANE_CAP_INACTIVE;
    UpdateActive();
}

// The options that follow the mode.
void Handle::UpdateActive()
{
    const ModelRules rules = RulesOf(scanner->entry().modelNumber);
    auto set = [this](int o, bool active) {
        if (active)
            desc[o].cap &= ~SANE_CAP_INACTIVE;
        else
            desc[o].cap |= SANE_CAP_INACTIVE;
    };
    const bool gray = mode == SANE_VALUE_SCAN_MODE_GRAY, color = mode == SANE_VALUE_SCAN_MODE_COLOR;
    set(kDepth, gray || color);
    desc[kDepth].constraint.word_list = color ? colorDepths.data() : grayDepths.data();
    set(kHalftonePattern, mode == SANE_VALUE_SCAN_MODE_HALFTONE);
    set(kTint, color && rules.tint);
    set(kSaturation, color && rules.saturation);
}

ScanRequest Handle::Request() const
{
    const Capabilities &c = scanner->caps();
    ScanRequest r;
    r.mode = mode == SANE_VALUE_SCAN_MODE_COLOR      ? Mode::Color
             : mode == SANE_VALUE_SCAN_MODE_GRAY     ? Mode::Gray
             : mode == SANE_VALUE_SCAN_MODE_HALFTONE ? Mode::Halftone
                                                     : Mode::Lineart;
    r.bits = r.mode == Mode::Gray || r.mode == Mode::Color ? depth : 1;
    r.resolution = resolution;
    r.contrast = contrast;
    const int res = resolution;
    auto dots = [res](SANE_Fixed mm) { return static_cast<int>(std::floor(SANE_UNFIX(mm) * res / 25.4 + 0.5)); };
    // Whole dots inside the area the driver reports (in 0.1 mm).
    r.x = dots(tlX);
    while (r.x * 254 < c.minStartX * res)
        r.x++;
    r.y = dots(tlY);
    r.width = dots(brX) - r.x;
    r.height = dots(brY) - r.y;
    while (r.width > 0 && (r.x + r.width) * 254 > c.maxWidth * res)
        r.width--;
    while (r.height > 0 && (r.y + r.height) * 254 > c.maxLength * res)
        r.height--;
    r.width = std::max(r.width, 0);
    r.height = std::max(r.height, 0);
    r.extended.brightness = brightness;
    r.extended.tint = tint;
    r.extended.saturation = saturation;
    r.extended.edgeEnhance = edge == SANE_TRUE;
    r.extended.noiseReduction = noise == SANE_TRUE;
    for (int i = 0; i < 5; i++)
        if (gamma == kGammaNames[i])
            r.extended.gamma = i + 1;
    for (int i = 0; i < 10; i++)
        if (pattern == kPatternNames[i])
            r.extended.ditherPattern = kPatternCodes[i];
    return r;
}

SANE_Status Handle::Get(int option, void *value) const
{
    auto word = [value](SANE_Word w) {
        *static_cast<SANE_Word *>(value) = w;
        return SANE_STATUS_GOOD;
    };
    auto text = [value](const std::string &s) {
        std::strcpy(static_cast<char *>(value), s.c_str());
        return SANE_STATUS_GOOD;
    };
    switch (option) {
    case kNumOptions:
        return word(count);
    case kMode:
        return text(mode);
    case kDepth:
        return word(depth);
    case kResolution:
        return word(resolution);
    case kHalftonePattern:
        return text(pattern);
    case kTlX:
        return word(tlX);
    case kTlY:
        return word(tlY);
    case kBrX:
        return word(brX);
    case kBrY:
        return word(brY);
    case kBrightness:
        return word(brightness);
    case kContrast:
        return word(contrast);
    case kGamma:
        return text(gamma);
    case kTint:
        return word(tint);
    case kSaturation:
        return word(saturation);
    case kEdge:
        return word(edge);
    case kNoise:
        return word(noise);
    default:
        return SANE_STATUS_INVAL;
    }
}

bool InRange(const SANE_Range &r, SANE_Word v)
{
    return v >= r.min && v <= r.max && (r.quant == 0 || (v - r.min) % r.quant == 0);
}

bool InList(const std::vector<SANE_String_Const> &list, const char *s)
{
    for (SANE_String_Const e : list)
        if (e && std::strcmp(e, s) == 0)
            return true;
    return false;
}

SANE_Status Handle::Set(int option, void *value, SANE_Int *info)
{
    const SANE_Option_Descriptor &d = desc[option];
    const SANE_Word w = d.type == SANE_TYPE_STRING ? 0 : *static_cast<SANE_Word *>(value);
    const char *s = static_cast<const char *>(value);
    // Every value is checked against its constraint; nothing is rounded.
    switch (d.constraint_type) {
    case SANE_CONSTRAINT_RANGE:
        if (!InRange(*d.constraint.range, w))
            return SANE_STATUS_INVAL;
        break;
    case SANE_CONSTRAINT_WORD_LIST:
        if (std::find(d.constraint.word_list + 1, d.constraint.word_list + 1 + d.constraint.word_list[0], w) ==
            d.constraint.word_list + 1 + d.constraint.word_list[0])
            return SANE_STATUS_INVAL;
        break;
    case SANE_CONSTRAINT_STRING_LIST:
        if (!InList(option == kMode ? modes : option == kGamma ? gammas : patterns, s))
            return SANE_STATUS_INVAL;
        break;
    default:
        if (d.type == SANE_TYPE_BOOL && w != SANE_FALSE && w != SANE_TRUE)
            return SANE_STATUS_INVAL;
        break;
    }
    SANE_Int changed = 0;
    switch (option) {
    case kMode:
        if (mode != s) {
            mode = s;
            const std::vector<SANE_Word> &depths = mode == SANE_VALUE_SCAN_MODE_COLOR ? colorDepths : grayDepths;
            if (std::find(depths.begin() + 1, depths.end(), depth) == depths.end() && depths.size() > 1)
                depth = depths.back();
            UpdateActive();
            changed = SANE_INFO_RELOAD_OPTIONS | SANE_INFO_RELOAD_PARAMS;
        }
        break;
    case kDepth:
        depth = w;
        changed = SANE_INFO_RELOAD_PARAMS;
        break;
    case kResolution:
        resolution = w;
        changed = SANE_INFO_RELOAD_PARAMS;
        break;
    case kHalftonePattern:
        pattern = s;
        break;
    case kTlX:
        tlX = w;
        changed = SANE_INFO_RELOAD_PARAMS;
        break;
    case kTlY:
        tlY = w;
        changed = SANE_INFO_RELOAD_PARAMS;
        break;
    case kBrX:
        brX = w;
        changed = SANE_INFO_RELOAD_PARAMS;
        break;
    case kBrY:
        brY = w;
        changed = SANE_INFO_RELOAD_PARAMS;
        break;
    case kBrightness:
        brightness = w;
        break;
    case kContrast:
        contrast = w;
        break;
    case kGamma:
        gamma = s;
        break;
    case kTint:
        tint = w;
        break;
    case kSaturation:
        saturation = w;
        break;
    case kEdge:
        edge = w;
        break;
    case kNoise:
        noise = w;
        break;
    default:
        return SANE_STATUS_INVAL;
    }
    if (info)
        *info = changed;
    return SANE_STATUS_GOOD;
}

// The process-wide state between sane_init and sane_exit.
struct Backend {
    bool prefixNames = false;
    std::vector<DeviceEntry> entries;
    std::vector<std::string> names;
    std::vector<SANE_Device> devices;
    std::vector<const SANE_Device *> list;
    std::vector<Handle *> handles;
};
Backend *g_backend = nullptr;

Handle *Checked(SANE_Handle h)
{
    if (!g_backend || !h)
        return nullptr;
    auto *handle = static_cast<Handle *>(h);
    const auto &all = g_backend->handles;
    return std::find(all.begin(), all.end(), handle) == all.end() ? nullptr : handle;
}

SANE_Status Init(SANE_Int *version, bool prefixNames)
{
    if (version)
        *version = SANE_VERSION_CODE(SANE_CURRENT_MAJOR, SANE_CURRENT_MINOR, 1);
    if (!g_backend)
        g_backend = new Backend;
    g_backend->prefixNames = prefixNames;
    Debug(2, "init (%s)", prefixNames ? "as libsane" : "through the dll backend");
    return SANE_STATUS_GOOD;
}

void Close(SANE_Handle h);

void Exit()
{
    if (!g_backend)
        return;
    while (!g_backend->handles.empty())
        Close(g_backend->handles.back());
    delete g_backend;
    g_backend = nullptr;
}

SANE_Status GetDevices(const SANE_Device ***list)
{
    if (!g_backend)
        return SANE_STATUS_INVAL;
    Backend &b = *g_backend;
    b.entries = ReadDevices();
    b.names.clear();
    for (const DeviceEntry &e : b.entries)
        b.names.push_back(b.prefixNames ? std::string(kPrefix) + ":" + e.name : e.name);
    b.devices.clear();
    for (size_t i = 0; i < b.entries.size(); i++)
        b.devices.push_back(SANE_Device{b.names[i].c_str(), "Korvane", b.entries[i].model.c_str(), "flatbed scanner"});
    b.list.clear();
    for (const SANE_Device &d : b.devices)
        b.list.push_back(&d);
    b.list.push_back(nullptr);
    *list = b.list.data();
    return SANE_STATUS_GOOD;
}

SANE_Status Open(SANE_String_Const name, SANE_Handle *out)
{
    if (!g_backend || !out)
        return SANE_STATUS_INVAL;
    std::string wanted = name ? name : "";
    if (wanted == kPrefix)
        wanted.clear();
    else if (wanted.rfind(std::string(kPrefix) + ":", 0) == 0)
        wanted = wanted.substr(sizeof kPrefix);
    std::vector<DeviceEntry> entries = ReadDevices();
    const DeviceEntry *entry = nullptr;
    DeviceEntry parsed;
    std::string error;
    if (wanted.empty() && !entries.empty())
        entry = &entries.front();
    else if (ParseDeviceLine(wanted, &parsed, &error))
        for (const DeviceEntry &e : entries)
            entry = !entry && e.name == parsed.name ? &e : entry;
    if (!entry) {
        Debug(1, "open: no scanner \"%s\" in tamrix.conf", wanted.c_str());
        return SANE_STATUS_INVAL;
    }
    auto handle = std::make_unique<Handle>();
    if (SANE_Status st = Scanner::Open(*entry, &handle->scanner); st != SANE_STATUS_GOOD)
        return st;
    handle->Build();
    g_backend->handles.push_back(handle.get());
    *out = handle.release();
    return SANE_STATUS_GOOD;
}

void Close(SANE_Handle h)
{
    Handle *handle = Checked(h);
    if (!handle)
        return;
    auto &all = g_backend->handles;
    all.erase(std::find(all.begin(), all.end(), handle));
    delete handle; // closes the device
}

const SANE_Option_Descriptor *GetOptionDescriptor(SANE_Handle h, SANE_Int option)
{
    Handle *handle = Checked(h);
    if (!handle || option < 0 || option >= kOptionCount)
        return nullptr;
    return &handle->desc[option];
}

SANE_Status ControlOption(SANE_Handle h, SANE_Int option, SANE_Action action, void *value, SANE_Int *info)
{
    Handle *handle = Checked(h);
    if (info)
        *info = 0;
    if (!handle || option < 0 || option >= kOptionCount)
        return SANE_STATUS_INVAL;
    const SANE_Option_Descriptor &d = handle->desc[option];
    if (d.type == SANE_TYPE_GROUP || !SANE_OPTION_IS_ACTIVE(d.cap))
        return SANE_STATUS_INVAL;
    if (action == SANE_ACTION_GET_VALUE)
        return value ? handle->Get(option, value) : SANE_STATUS_INVAL;
    if (action == SANE_ACTION_SET_VALUE && value && SANE_OPTION_IS_SETTABLE(d.cap))
        return handle->Set(option, value, info);
    return SANE_STATUS_INVAL; // no option can be set automatically
}

SANE_Status GetParameters(SANE_Handle h, SANE_Parameters *p)
{
    Handle *handle = Checked(h);
    if (!handle || !p)
        return SANE_STATUS_INVAL;
    const Frame f = handle->started ? handle->scanner->frame() : FrameOf(handle->Request());
    p->format = f.color ? SANE_FRAME_RGB : SANE_FRAME_GRAY;
    p->last_frame = SANE_TRUE;
    p->depth = f.depth;
    p->pixels_per_line = f.width;
    p->lines = f.lines;
    p->bytes_per_line = f.BytesPerLine();
    return SANE_STATUS_GOOD;
}

SANE_Status Start(SANE_Handle h)
{
    Handle *handle = Checked(h);
    if (!handle)
        return SANE_STATUS_INVAL;
    const ScanRequest r = handle->Request();
    if (r.width <= 0 || r.height <= 0) {
        Debug(1, "start: the scan area is empty (bottom-right must lie right of and below top-left)");
        return SANE_STATUS_INVAL;
    }
    handle->nonBlocking = false;
    SANE_Status st = handle->scanner->Start(r);
    handle->started = st == SANE_STATUS_GOOD;
    return st;
}

SANE_Status Read(SANE_Handle h, SANE_Byte *data, SANE_Int max, SANE_Int *length)
{
    Handle *handle = Checked(h);
    if (length)
        *length = 0;
    if (!handle || !data || !length || max < 0)
        return SANE_STATUS_INVAL;
    return handle->scanner->Read(data, max, length, !handle->nonBlocking);
}

void Cancel(SANE_Handle h)
{
    // No lookup, no allocation, no lock: a signal handler may call this.
    if (!h)
        return;
    auto *handle = static_cast<Handle *>(h);
    handle->started = false; // the parameters are the options' again
    handle->scanner->Cancel();
}

SANE_Status SetIoMode(SANE_Handle h, SANE_Bool nonBlocking)
{
    Handle *handle = Checked(h);
    if (!handle || !handle->started)
        return SANE_STATUS_INVAL;
    handle->nonBlocking = nonBlocking == SANE_TRUE;
    return SANE_STATUS_GOOD;
}

SANE_Status GetSelectFd(SANE_Handle h, SANE_Int *fd)
{
    Handle *handle = Checked(h);
    if (!handle || !fd || !handle->started)
        return SANE_STATUS_INVAL;
    *fd = handle->scanner->SelectFd();
    return SANE_STATUS_GOOD;
}

SANE_String_Const StatusText(SANE_Status status)
{
    static const char *const texts[] = {"Success",
                                        "Operation not supported",
                                        "Operation was cancelled",
                                        "Device busy",
                                        "Invalid argument",
                                        "End of file reached",
                                        "Document feeder jammed",
                                        "Document feeder out of documents",
                                        "Scanner cover is open",
                                        "Error during device I/O",
                                        "Out of memory",
                                        "Access to resource has been denied"};
    const auto i = static_cast<size_t>(status);
    return i < sizeof texts / sizeof texts[0] ? texts[i] : "Unknown status";
}

} // namespace

} // namespace tamrix_sane

using namespace tamrix_sane;

// The entry points under both names.
#define TAMRIX_ENTRY(ret, name, params, args, prefixed)                                                                \
    TAMRIX_EXPORT ret sane_##name params                                                                               \
    {                                                                                                                  \
        return prefixed args;                                                                                          \
    }                                                                                                                  \
    TAMRIX_EXPORT ret sane_tamrix_##name params                                                                        \
    {                                                                                                                  \
        return prefixed args;                                                                                          \
    }

TAMRIX_EXPORT SANE_Status sane_init(SANE_Int *version, SANE_Auth_Callback)
{
    return Init(version, true);
}
TAMRIX_EXPORT SANE_Status sane_tamrix_init(SANE_Int *version, SANE_Auth_Callback)
{
    return Init(version, false);
}
TAMRIX_EXPORT void sane_exit(void)
{
    Exit();
}
TAMRIX_EXPORT void sane_tamrix_exit(void)
{
    Exit();
}
TAMRIX_ENTRY(SANE_Status, get_devices, (const SANE_Device ***list, SANE_Bool), (list), GetDevices)
TAMRIX_ENTRY(SANE_Status, open, (SANE_String_Const name, SANE_Handle *h), (name, h), Open)
TAMRIX_EXPORT void sane_close(SANE_Handle h)
{
    Close(h);
}
TAMRIX_EXPORT void sane_tamrix_close(SANE_Handle h)
{
    Close(h);
}
TAMRIX_ENTRY(const SANE_Option_Descriptor *, get_option_descriptor, (SANE_Handle h, SANE_Int o), (h, o),
             GetOptionDescriptor)
TAMRIX_ENTRY(SANE_Status, control_option, (SANE_Handle h, SANE_Int o, SANE_Action a, void *v, SANE_Int *i),
             (h, o, a, v, i), ControlOption)
TAMRIX_ENTRY(SANE_Status, get_parameters, (SANE_Handle h, SANE_Parameters *p), (h, p), GetParameters)
TAMRIX_ENTRY(SANE_Status, start, (SANE_Handle h), (h), Start)
TAMRIX_ENTRY(SANE_Status, read, (SANE_Handle h, SANE_Byte *d, SANE_Int m, SANE_Int *l), (h, d, m, l), Read)
TAMRIX_EXPORT void sane_cancel(SANE_Handle h)
{
    Cancel(h);
}
TAMRIX_EXPORT void sane_tamrix_cancel(SANE_Handle h)
{
    Cancel(h);
}
TAMRIX_ENTRY(SANE_Status, set_io_mode, (SANE_Handle h, SANE_Bool m), (h, m), SetIoMode)
TAMRIX_ENTRY(SANE_Status, get_select_fd, (SANE_Handle h, SANE_Int *fd), (h, fd), GetSelectFd)
TAMRIX_ENTRY(SANE_String_Const, strstatus, (SANE_Status s), (s), StatusText)
