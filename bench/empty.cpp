// What it costs to start and end any program of this language and its libraries.
int main() {}
