// The block queries of a model read from a file.
#include "format/krxtoc.h"

#include "base/krxmsg.h"
#include "format/krxformat.h"

namespace krx {

int block_present(const KRXDATA *model, int index) {
  if (!model || index < 0 || index >= kBlockCount) return 0;
  if (index < 3) return 1;
  return model->flags[block_info(index + 1)->flag] != 0;
}

int seek_to_block(KRXDATA *model, int index) {
  if (!model || !model->own.file || !block_present(model, index)) return 0;
  return seek_stream(model->own, model->block_start[index + 1]);
}

int64_t block_size(KRXDATA *model, int index) {
  if (!block_present(model, index) || !model->own.file) return 0;
  const BlockInfo *info = block_info(index + 1);
  BlockCounts counts;
  int64_t size = -1;
  if (info->leading == 0) {
    size = info->size(counts, model->char_width, model->real_width, version_generation(model->version));
  } else {
    int64_t back = tell_stream(model->own);
    BlockIo io = model_block_io(*model);
    if (seek_to_block(model, index) && read_block_counts(io, info->number, counts))
      size = info->size(counts, model->char_width, model->real_width, io.generation);
    if (back >= 0) seek_stream(model->own, back);
  }
  if (size < 0 && info->size_problem) error("%s", info->size_problem);
  return size;
}

}  // namespace krx
