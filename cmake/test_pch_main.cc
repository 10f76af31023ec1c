// The target that owns the tests' precompiled header; it never runs.
int main() { return 0; }
