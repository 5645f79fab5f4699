/* A small shared object for the tests of modules. */
int probeValue = 42;

int probeAnswer(void);
int probeAnswer(void) {
    return probeValue;
}
