/* loaded.c: what the tests of the loader load. */
#pragma GCC visibility push(default)
int answer(void);
int answer(void) { return 42; }

/* A symbol whose value is null. */
__asm__(".globl nothing\n.set nothing, 0\n");
