// A straight bar of square section in hexahedra, structured (transfinite): 8-node bricks with
// order = 1, 20-node bricks with order = 2. Lengths in mm.
//   gmsh -3 bar.geo -setnumber n 6 -setnumber order 2   (n: elements across the section)
SetFactory("OpenCASCADE");
DefineConstant[ n = {6, Name "Parameters/elements across"},
                order = {1, Name "Parameters/element order"} ];

length = 200; side = 20;
Box(1) = {0, 0, 0, length, side, side};

Transfinite Curve{:} = n + 1;
Transfinite Curve{Curve In BoundingBox{-1, -1, -1, length + 1, 1, 1}} = 5 * n + 1;
Transfinite Curve{Curve In BoundingBox{-1, side - 1, -1, length + 1, side + 1, 1}} = 5 * n + 1;
Transfinite Curve{Curve In BoundingBox{-1, -1, side - 1, length + 1, 1, side + 1}} = 5 * n + 1;
Transfinite Curve{Curve In BoundingBox{-1, side - 1, side - 1, length + 1, side + 1, side + 1}} = 5 * n + 1;
Transfinite Surface{:};
Recombine Surface{:};
Transfinite Volume{1};

e = 0.01;
Physical Surface("END1") = {Surface In BoundingBox{-e, -e, -e, e, side + e, side + e}};
Physical Surface("END2") = {Surface In BoundingBox{length - e, -e, -e, length + e, side + e, side + e}};
Physical Volume("BAR") = {1};

Mesh.ElementOrder = order;
Mesh.SecondOrderIncomplete = 1;
Mesh.SaveGroupsOfNodes = 1;
