/* A program of a libcsi user: built against the installed headers and library. */
#include <libcsi/libcsi.h>

#include <stdio.h>

int main(void)
{
    uint32_t version[4] = {0, 0, 0, 0};
    if (libcsi_get_version(version) != LIBCSI_OK)
        return 1;
    printf("libcsi %u.%u.%u\n", version[0], version[1], version[2]);
    return 0;
}
