// A straight bar of rectangular section in hexahedra, structured (transfinite): 8-node bricks with
// order = 1, 20-node bricks with order = 2. Lengths in mm.
//   gmsh -3 bar.geo -setnumber n 6 -setnumber order 2   (n: elements across the section)
SetFactory("OpenCASCADE");
DefineConstant[ n = {6, Name "Parameters/elements across"},
                order = {1, Name "Parameters/element order"} ];

length = 200; wide = 24; deep = 16;  // unequal sides: no repeated bending frequencies
Box(1) = {0, 0, 0, length, wide, deep};

Transfinite Curve{:} = n + 1;
For y In {0 : wide : wide}  // the four edges along the bar: five times as many elements
  For z In {0 : deep : deep}
    Transfinite Curve{Curve In BoundingBox{-1, y - 1, z - 1, length + 1, y + 1, z + 1}} = 5 * n + 1;
  EndFor
EndFor
Transfinite Surface{:};
Recombine Surface{:};
Transfinite Volume{1};

e = 0.01;
Physical Surface("END1") = {Surface In BoundingBox{-e, -e, -e, e, wide + e, deep + e}};
Physical Surface("END2") = {Surface In BoundingBox{length - e, -e, -e,
                                                   length + e, wide + e, deep + e}};
Physical Volume("BAR") = {1};

Mesh.ElementOrder = order;
Mesh.SecondOrderIncomplete = 1;
Mesh.SaveGroupsOfNodes = 1;
