// The exported frame: what the entries do to the host's arguments before they forward them.
#include <gtest/gtest.h>

#include "host/krx_fortran.h"
#include "testsupport.h"

using krxtest::Message;
using krxtest::RecordingHost;

namespace {

struct Frame : krxtest::ModelTest {
  int status = -1;
};

TEST_F(Frame, ArraysArriveInColumnOrderAndAreKeptRowByRow) {
  fresh(10, 2);
  RecordingHost host;
  int node = 5, mode = 11;
  krx::register_mode(model, mode);
  // Inertia from the values below the diagonal, column order (1,1) (2,1) (3,1) (1,2) ...
  double symmetric[9] = {1, 4, 5, 4, 2, 6, 5, 6, 3}, unsymmetric[9] = {1, 4, 5, 40, 2, 6, 50, 60, 3};
  KRX_SET_NODAL_INERTIA_MAT(&node, symmetric, &status);
  EXPECT_TRUE(status == 0 && host.messages.empty());
  KRX_SET_NODAL_INERTIA_MAT(&node, unsymmetric, &status);
  EXPECT_EQ(host.messages, std::vector<Message>({{2, "Unsymmetric Inertia Tensor supplied to KRX_SET_NODAL_INERTIA_MAT"}}));
  EXPECT_EQ(*model->nodes[0].inertia, (std::array<double, 6>{1, 2, 3, 4, 5, 6}));

  double column_order[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9}, symmetric9[9] = {1, 2, 3, 2, 5, 6, 3, 6, 9};
  KRX_SET_INVAR8(&mode, column_order, &status);
  EXPECT_EQ(model->invariant8, (std::vector<double>{1, 4, 7, 2, 5, 8, 3, 6, 9}));
  KRX_SET_INVAR9(&mode, &mode, symmetric9, &status);
  EXPECT_EQ(model->invariant9, std::vector<double>(symmetric9, symmetric9 + 9));
  KRX_SET_INVAR7(column_order, &status);  // passed on as the host gives it
  EXPECT_EQ(model->invariant7, std::vector<double>(column_order, column_order + 9));

  // A stress read back gives both halves of the node's record.
  double values[6] = {1, 2, 3, 4, 5, 6}, out[6] = {};
  KRX_SET_MODAL_STRESS_VEC(&mode, &node, values, &status);
  KRX_GET_MODAL_STRESS(&mode, &node, out, out + 1, out + 2, out + 3, out + 4, out + 5, &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(std::vector<double>(out, out + 6), std::vector<double>(values, values + 6));
}

}  // namespace
