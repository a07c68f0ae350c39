#include <cstdio>
#include <cstring>

int main(int argc, char **argv) {
  for (int i = 1; i < argc; ++i)
    if (!strcmp(argv[i], "--version")) {
      printf("rtmd 0.1.0\n");
      return 0;
    }
  printf("rtmd 0.1.0\n");
  return 0;
}
