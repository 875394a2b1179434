// The records of the public interface as the tests fill them: empty (all
// zero), full (every value the writers use), one shot, and a TIFF description.
#pragma once

#include <cstdint>
#include <cstring>

#include "Ombrelumen40Lib1.h"

namespace oltest::records {

// A record of all zero bytes, padding included (records are compared byte
// for byte).
template <class T>
T zeroed() {
    T t;
    std::memset(&t, 0, sizeof t);
    return t;
}
inline ExifRecord emptyExif() { return zeroed<ExifRecord>(); }
inline GpsRecord emptyGps() { return zeroed<GpsRecord>(); }

// A record with the shot's exposure time, F-number, ISO and focal length,
// everything else zero.
inline ExifRecord shotExif(int exposureNum, int exposureDen, int apertureNum, int apertureDen, int iso,
                           int focalNum, int focalDen) {
    ExifRecord e = emptyExif();
    e.exposureNum = exposureNum;
    e.exposureDen = exposureDen;
    e.apertureNum = apertureNum;
    e.apertureDen = apertureDen;
    e.iso = iso;
    e.focalNum = focalNum;
    e.focalDen = focalDen;
    return e;
}

// A record with every Exif value the writers use.
inline ExifRecord fullExif() {
    ExifRecord e = shotExif(1, 125, 56, 10, 200, 35, 1);
    std::strcpy(e.camera, "TestCam 5");
    std::strcpy(e.date, "2024:05:06 07:08:09");
    return e;
}

inline GpsRecord fullGps() {
    GpsRecord g = emptyGps();
    const std::uint32_t parts[18] = {48, 1, 51, 1, 2400, 100, 2, 1, 21, 1, 0, 1, 7, 1, 8, 1, 9, 1};
    std::memcpy(g.latitude, parts, sizeof g.latitude);
    std::memcpy(g.longitude, parts + 6, sizeof g.longitude);
    std::memcpy(g.timestamp, parts + 12, sizeof g.timestamp);
    g.altitude[0] = 3500;
    g.altitude[1] = 100;
    g.lat_ref = 'N';
    g.long_ref = 'E';
    g.alt_ref = '0';
    std::memcpy(g.datestamp, "2024:05:06", 11);
    return g;
}

inline tif_info makeInfo(int width, int height, int samples, int bits, int mode = 0) {
    tif_info t = zeroed<tif_info>();
    t.width = width;
    t.height = height;
    t.samples = samples;
    t.bits = bits;
    t.dpi = 300;
    t.mode = mode;
    t.orientation = 1;
    return t;
}

}  // namespace oltest::records
