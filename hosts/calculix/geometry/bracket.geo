// An angle bracket: a base plate with two bolt holes and an upright flange at one end, in
// quadratic tetrahedra. Lengths in mm. The exact volume, centre of mass and inertia follow from
// the two plates and the two holes (tests/calculix/solids.py).
//   gmsh -3 bracket.geo -setnumber h 4      (h: the largest element size)
SetFactory("OpenCASCADE");
DefineConstant[ h = {4, Name "Parameters/element size"} ];

length = 100; width = 40; thickness = 5; height = 60;  // base plate, flange height
radius = 5; hole1 = 40; hole2 = 80;                    // bolt holes on the centre line

Box(1) = {0, 0, 0, length, width, thickness};
Box(2) = {0, 0, 0, thickness, width, height};
BooleanUnion(3) = { Volume{1}; Delete; }{ Volume{2}; Delete; };
Cylinder(4) = {hole1, width / 2, -1, 0, 0, thickness + 2, radius};
Cylinder(5) = {hole2, width / 2, -1, 0, 0, thickness + 2, radius};
BooleanDifference(6) = { Volume{3}; Delete; }{ Volume{4, 5}; Delete; };

// The two hole walls become node sets HOLE1 and HOLE2 (interface points).
e = 0.01;
wall1[] = Surface In BoundingBox{hole1 - radius - e, width / 2 - radius - e, -e,
                                 hole1 + radius + e, width / 2 + radius + e, thickness + e};
wall2[] = Surface In BoundingBox{hole2 - radius - e, width / 2 - radius - e, -e,
                                 hole2 + radius + e, width / 2 + radius + e, thickness + e};
Physical Surface("HOLE1") = {wall1[]};
Physical Surface("HOLE2") = {wall2[]};
Physical Volume("BRACKET") = {6};

Mesh.CharacteristicLengthMax = h;
Mesh.ElementOrder = 2;
Mesh.SaveGroupsOfNodes = 1;
