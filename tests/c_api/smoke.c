/* The public header compiled as C99 (pedantic), linked against the shared
 * library: the shared records keep their sizes and calls go through. (The
 * values are pinned by the unit tests; the roads program drives the rest.) */
#include <stdio.h>

#include "Ombrelumen40Lib1.h"

int main(void) {
    float deltaT[3];
    int ordre[3];
    int moy[3] = {0, 0, 0};
    if (sizeof(ExifRecord) != 23 * 4 + 84 || sizeof(GpsRecord) != 80 + 4 + 11 + 1) return 1;
    if (guess_ev(0, 3, 2.0f, moy, deltaT) != 3 || deltaT[0] != 4.0f || deltaT[2] != 0.25f) return 2;
    if (fClassementCroissant(3, deltaT, ordre) != 3 || ordre[0] != 2 || ordre[2] != 0) return 3;
    puts("c_api_smoke: ok");
    return 0;
}
