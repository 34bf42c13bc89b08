// What test programs include most is compiled with this one, which does nothing, and used by all.

int main() {}
