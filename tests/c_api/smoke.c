/* The public header compiled as C99, linked against the shared library:
 * a round trip through a handful of exported functions. */
#include <stdio.h>
#include <string.h>

#include "Ombrelumen40Lib1.h"

int main(int argc, char** argv) {
    float deltaT[3];
    int ordre[3];
    int moy[3] = {0, 0, 0};
    unsigned char rows[6] = {1, 2, 3, 4, 5, 6};
    char path[1024];
    unsigned char back[6];
    ExifRecord exif;
    GpsRecord gps;

    memset(&exif, 0, sizeof exif);
    memset(&gps, 0, sizeof gps);
    if (guess_ev(0, 3, 2.0f, moy, deltaT) != 3) return 1;
    if (deltaT[0] != 4.0f || deltaT[1] != 1.0f || deltaT[2] != 0.25f) return 2;
    if (fClassementCroissant(3, deltaT, ordre) != 3 || ordre[0] != 2 || ordre[2] != 0) return 3;
    if (renverse(2, 3, 0, rows) != 1 || rows[0] != 4 || rows[5] != 3) return 4;

    snprintf(path, sizeof path, "%s/c_api_smoke.bin", argc > 1 ? argv[1] : ".");
    if (save_buffer(path, rows, 6) != 6) return 5;
    if (load_buffer(path, back, 6) != 6 || memcmp(rows, back, 6) != 0) return 6;
    if (ol_deletef(path) != 0 || ol_checkfolder(path) != -1) return 7;
    if (sizeof(ExifRecord) != 23 * 4 + 84 || sizeof(GpsRecord) != 80 + 4 + 11 + 1) return 8;
    puts("c_api_smoke: ok");
    return 0;
}
