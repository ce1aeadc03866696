// The temporary vector store: mode shapes, modal stresses and modal strains spooled to fixed-size
// records, one record per mode, written by (mode, node) and read a mode at a time. Also the
// replacement files (orthogonal and shortened mode files) that processing steps switch a kind to.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/krxdata.h"

namespace krx {

// The operation behind the mode-shape, modal-stress and modal-strain setters. Mode number 0 with
// kind 1 or 2 stores the node's pre-stress or pre-strain instead.
int store_node_vector(KRXDATA *model, int32_t mode_number, int32_t node_id, int kind,
                      const double values[6]);
// One of the six values; dof is 0-based.
int store_node_value(KRXDATA *model, int32_t mode_number, int32_t node_id, int kind, int dof,
                     double value);

// Makes the record of (mode number, kind) available in model->store[kind].record, six doubles per
// node of the kind (every node of the node table for mode shapes, the kind's node list otherwise),
// unit-scaled. Mode 0 with kind 1 or 2 loads the pre-stress or pre-strain.
int load_mode_record(KRXDATA *model, int32_t mode_number, int kind);
// Same by mode index (0-based position in the registry), for processing loops.
int load_mode_record_by_index(KRXDATA *model, int32_t mode_index, int kind);
// First (half 0) or last (half 1) three values of a node from the loaded record.
int node_values(KRXDATA *model, int32_t mode_number, int kind, int32_t node_id, int half,
                double out[3]);

// The slot of a node in a kind's node list (kinds 1 and 2), -1 when it has none.
int32_t kind_slot(const KRXDATA *model, int kind, int32_t node_id);
// Number of nodes a record of the kind holds.
int32_t kind_node_count(const KRXDATA *model, int kind);

// Writes out what the store has buffered for a kind, so the file holds every stored value.
int flush_vector_store(KRXDATA *model, int kind);

// A new temporary file for a kind, in the directory of the kind's current file, holding records
// of slots x 6 values. Once filled, install_replacement_file closes and deletes the kind's old
// file, switches the slot to the new one and drops the cached record.
struct ReplacementFile {
  int kind = 0;
  FileSlot io;
  std::vector<int64_t> record_start;
  int32_t slots = 0;
};
// note_format is "Orthogonal mode file: %s" or "Shortened mode file: %s" (printed unless quiet).
int open_replacement_file(KRXDATA *model, int kind, int32_t records, int32_t slots,
                          const char *note_format, ReplacementFile &out);
// Record r of slots x 6 doubles.
int write_replacement_record(ReplacementFile &file, int32_t record, const double *values);
int install_replacement_file(KRXDATA *model, ReplacementFile &file);
// Closes and deletes a replacement file that is not installed.
void discard_replacement_file(ReplacementFile &file);

}  // namespace krx
