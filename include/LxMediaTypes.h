// LxMediaTypes.h - the enumerations that describe media formats.
//
// Kept apart from LxFormat.h so that the platform layers, which deliver samples and pixels in
// these layouts, can name them without the format classes. The numeric values are fixed: they
// are stored in formats, compared by match() and passed across the library boundary.
#ifndef LX_MEDIA_TYPES_H
#define LX_MEDIA_TYPES_H

enum LxFormatType_s { LxVideoType = 0, LxAudioType = 1 };

enum LxSampleFormat_s { LxSample8 = 0, LxSample16 = 1, LxAnySampleFormat = 2 };

enum LxAudioChannels_s { LxMono = 0, LxStereo = 1, LxAnyChannels = 2 };

/// Pixel layouts; there is no wildcard value (width and height use -1 as theirs).
enum LxPixelFormat_s {
    LxPixel24 = 0,
    LxPixel32 = 1,
    LxPixel16 = 2,
    LxPixel24Alt = 3,
    LxPixel32Alt = 4,
    LxPixel8 = 5
};

#endif  // LX_MEDIA_TYPES_H
