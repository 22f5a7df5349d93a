/* A host that leaves everything to a library. */
int main(void)
{
    return 0;
}
