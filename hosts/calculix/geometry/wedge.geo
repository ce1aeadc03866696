// A prism of right-triangular section (legs a along x, b along y) extruded along z, in wedges: a
// triangle mesh of the section swept in layers. 6-node wedges with order = 1, 15-node wedges with
// order = 2. Lengths in mm.
//   gmsh -3 wedge.geo -setnumber h 5 -setnumber order 2   (h: element size)
DefineConstant[ h = {5, Name "Parameters/element size"},
                order = {1, Name "Parameters/element order"} ];

a = 60; b = 30; length = 80;
Point(1) = {0, 0, 0, h};
Point(2) = {a, 0, 0, h};
Point(3) = {0, b, 0, h};
Line(1) = {1, 2};
Line(2) = {2, 3};
Line(3) = {3, 1};
Curve Loop(1) = {1, 2, 3};
Plane Surface(1) = {1};
swept[] = Extrude {0, 0, length} { Surface{1}; Layers{Ceil(length / h)}; Recombine; };

Physical Surface("BOTTOM") = {1};
Physical Surface("TOP") = {swept[0]};
Physical Volume("WEDGE") = {swept[1]};

Mesh.ElementOrder = order;
Mesh.SecondOrderIncomplete = 1;
Mesh.SaveGroupsOfNodes = 1;
