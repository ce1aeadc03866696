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
// kind 1 or 2 stores the node's pre-stress or pre-strain instead (set_pre_values: no file,
// flag 29 / 30). The first value of a kind creates its file and lays out every record;
// values are held back in per-mode runs and reach the file when a run is full or not contiguous,
// before any record is read, and at flush_vector_store. Sets the kind's content flag (4 / 16 / 27).
int store_node_vector(KRXDATA *model, int32_t mode_number, int32_t node_id, int kind,
                      const double values[6]);
// Pre-stress (kind 1) or pre-strain (kind 2) of a node: six values per node of the kind's list.
int set_pre_values(KRXDATA *model, int32_t node_id, int kind, const double values[6]);
// One of the six values; dof is 0-based, at dof x the value width inside the node's 48 bytes.
int store_node_value(KRXDATA *model, int32_t mode_number, int32_t node_id, int kind, int dof,
                     double value);

// Makes the record of (mode number, kind) available in model->store[kind].record, six doubles per
// node of the kind (every node of the node table for mode shapes, the kind's node list otherwise),
// unit-scaled: translations of mode shapes by the length ratio, stresses (pre-stress too) by
// force ratio / length ratio^2, strains never. Mode 0 with kind 1 or 2 loads the pre-stress or
// pre-strain (zeros for list nodes that have none). An unknown mode, a kind without nodes or
// without pre values fails without a message; a failed read is reported and still returns 1.
// Storing into the held mode drops the held copy; a caller that changes the unit ratios sets
// held_mode to -1 itself. Works on the library's files and on a model read from a file
// (xdr_in_use 1: big-endian reals; record_start per mode, slot_bytes per node).
int load_mode_record(KRXDATA *model, int32_t mode_number, int kind);
// Same by mode index (0-based position in the registry), for processing loops.
int load_mode_record_by_index(KRXDATA *model, int32_t mode_index, int kind);
// Nodes [first_node, first_node + count) of the record of a mode index, six doubles per node
// (slots of the kind's node list for kinds 1 and 2), read with one positioned read of the span
// and unit-scaled like load_mode_record; the held record is left alone. Pending writes of the
// kind go out first. A span or mode outside the kind fails without a message; a failed read
// reports "Problem reading ..." like load_mode_record and returns 0. Files in single precision
// or XDR encoding are converted in model->scratch; std::bad_alloc from it goes to the caller.
int read_mode_nodes(KRXDATA *model, int kind, int32_t mode_index, int32_t first_node,
                    int32_t count, double *out);
// The same values as they stand in the file (no unit scaling) and without a message on failure,
// for the rewrites that copy a kind's file into a replacement.
int read_stored_nodes(KRXDATA *model, int kind, int32_t mode_index, int32_t first_node,
                      int32_t count, double *out);
// First (half 0) or last (half 1) three values of a node from the loaded record.
int node_values(KRXDATA *model, int32_t mode_number, int kind, int32_t node_id, int half,
                double out[3]);

// The slot of a node in a kind's node list (kinds 1 and 2), -1 when it has none.
int32_t kind_slot(const KRXDATA *model, int kind, int32_t node_id);
// Number of nodes a record of the kind holds.
int32_t kind_node_count(const KRXDATA *model, int kind);

// Writes out what the store has buffered for a kind, so the file holds every stored value. Needed
// before anything else touches the kind's FILE*; the store itself writes with positioned writes
// on its descriptor and never leaves data in the stream's buffer. Release drops what is pending.
int flush_vector_store(KRXDATA *model, int kind);

// A new temporary file "krx_XXXXXX" for a kind, in the directory of the kind's current file
// (else QOR_TMP_* or TMP), laid out at once with records of slots x 48 bytes in the kind's
// precision. Once filled, install_replacement_file drops the kind's pending writes, closes the
// old file (deleting it when the library made it), switches the slot to the new one and drops the
// held record. The slot's node list and index are left as they were: a caller that kept fewer
// nodes of kind 1 or 2 (shortened file) replaces slot.nodes and slot.index itself.
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
