// The least that a program can do: started by bench_startup to compare with.
#include <cstdio>

int main()
{
    std::puts("one line");
    return 0;
}
