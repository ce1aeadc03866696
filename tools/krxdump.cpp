// krxdump <krx_file> [-l] [-b <block>]: lists the blocks of a Korex.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "format/krxformat.h"
#include "format/krxread.h"
#include "inspect/krxlist.h"

namespace {

void usage() {
  std::printf("usage: krxdump <krx_file> [-l] [-b <block>] \n");
  std::printf("%64s\n", "");
  std::printf("  krx_file     Korex                               \n");
  std::printf("  -b <block>   Dump only block <block>                          \n");
  std::printf("  -l           List available blocks and exit.                  \n");
  std::printf("%64s\n", "");
}

// The block list stops at block 18 and names block 17 interface_points; both are kept as they are.
void list_names() {
  for (int k = 1; k <= 18; ++k) {
    const char *name = k == 17 ? "interface_points" : krx::block_info(k)->name;
    std::printf("%-13s%s\n", ("block " + std::to_string(k)).c_str(), name);
  }
}

}  // namespace

int main(int argc, char **argv) {
  // Without a file name the usage is printed and the tool goes on to fail on the missing name.
  if (argc < 2) usage();
  krx::KRXDATA *model = argc < 2 ? nullptr : krx::find_or_read_model(argv[1]);
  if (!model) {
    std::printf("\n**ERROR\a** First argument must be a valid Korex name.\n\n");
    return 0;
  }
  int block = 0;
  // Switches come in pairs, so "-l" is seen only at even positions.
  for (int i = 2; i < argc; i += 2) {
    if (std::strcmp(argv[i], "-l") == 0) {
      list_names();
      std::exit(0);
    }
    if (std::strcmp(argv[i], "-b") != 0) {
      std::printf("\n**ERROR\a** No such switch %s\n\n", argv[i]);
      return 0;
    }
    block = i + 1 < argc ? std::atoi(argv[i + 1]) : 0;
    if (block < 1 || block > 32) {
      std::printf("\n**ERROR\a** No block %d\n\n", block);
      std::exit(0);
    }
  }
  if (block) {
    krx::list_block(model, block, stdout);
    return 0;
  }
  for (int k = 1; k <= 15; ++k) krx::list_block(model, k, stdout);
  std::exit(1);
}
