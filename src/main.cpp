// Entry point: wires the Linux platform into the application.
#include <cstdio>

int main() {
    std::puts("Glimmerbox: recording is not available yet on this platform build.");
    return 0;
}
