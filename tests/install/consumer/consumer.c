#include <stdio.h>

#include <Ombrelumen40Lib1.h>

int main(void) {
    float values[4] = {3.0f, 1.0f, 4.0f, 2.0f};
    int ordre[4];
    if (fClassementCroissant(4, values, ordre) != 4) return 1;
    if (ordre[0] != 1 || ordre[1] != 3 || ordre[2] != 0 || ordre[3] != 2) return 2;
    puts("consumer: ok");
    return 0;
}
