// The records of the public interface as the tests fill them: empty (all
// zero), full (every value the writers use), one shot, and a TIFF description.
#pragma once

#include <cstdint>
#include <cstring>

#include "Ombrelumen40Lib1.h"

namespace oltest::records {

inline ExifRecord emptyExif() {
    ExifRecord e;
    std::memset(&e, 0, sizeof e);
    return e;
}

inline GpsRecord emptyGps() {
    GpsRecord g;
    std::memset(&g, 0, sizeof g);
    return g;
}

// A record with every Exif value the writers use.
inline ExifRecord fullExif() {
    ExifRecord e = emptyExif();
    e.exposureNum = 1;
    e.exposureDen = 125;
    e.apertureNum = 56;
    e.apertureDen = 10;
    e.iso = 200;
    e.focalNum = 35;
    e.focalDen = 1;
    std::strcpy(e.camera, "TestCam 5");
    std::strcpy(e.date, "2024:05:06 07:08:09");
    return e;
}

inline GpsRecord fullGps() {
    GpsRecord g = emptyGps();
    const std::uint32_t lat[6] = {48, 1, 51, 1, 2400, 100};
    const std::uint32_t lon[6] = {2, 1, 21, 1, 0, 1};
    const std::uint32_t tim[6] = {7, 1, 8, 1, 9, 1};
    std::memcpy(g.latitude, lat, sizeof lat);
    std::memcpy(g.longitude, lon, sizeof lon);
    std::memcpy(g.timestamp, tim, sizeof tim);
    g.altitude[0] = 3500;
    g.altitude[1] = 100;
    g.lat_ref = 'N';
    g.long_ref = 'E';
    g.alt_ref = '0';
    std::memcpy(g.datestamp, "2024:05:06", 11);
    return g;
}

inline tif_info makeInfo(int width, int height, int samples, int bits, int mode = 0) {
    tif_info t;
    std::memset(&t, 0, sizeof t);
    t.width = width;
    t.height = height;
    t.samples = samples;
    t.bits = bits;
    t.dpi = 300;
    t.mode = mode;
    t.orientation = 1;
    return t;
}

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

}  // namespace oltest::records
