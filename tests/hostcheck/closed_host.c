/* A host that keeps a function of the contract to itself. */
void kvlog(void);

__attribute__((noinline)) void kvlog(void) {}

int main(void)
{
    kvlog();
    return 0;
}
