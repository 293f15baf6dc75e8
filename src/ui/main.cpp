#include <cstdio>

int main() {
    std::fprintf(stderr, "pavix: not ready\n");
    return 1;
}
