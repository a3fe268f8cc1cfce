/* A program built against the installed library: it links, loads and calls an export. */
#include <stdio.h>
#include <vexshmrm.h>

int main(void) {
    int size = 0;
    /* Not attached: the export answers, it does not crash. */
    const int rc = shmrm_dump(NULL, &size);
    printf("rmmon %d, shmrm_dump -> %d\n", (int)sizeof(rmmon), rc);
    return rc == SHMRM_ERR_NOTINIT ? 0 : 1;
}
