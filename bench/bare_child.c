/* The bare floor's child: a trivial program that answers its parent with one
 * byte on descriptor 3 and ends. What a sub-process start costs at the very
 * least is a fork, an exec of something like this, and that byte. */
#include <unistd.h>

int main(void) {
    const char byte = 1;
    return write(3, &byte, 1) == 1 ? 0 : 1;
}
