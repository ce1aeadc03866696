// A bent sheet-metal bracket for shell elements: a base plate 80 x 40 in z = 0 with two bolt
// holes, bent up by 90 degrees along x = 80 into a flange 40 high. Lengths in mm; the sheet's
// thickness is the deck's (make_deck.py --shell).
//   gmsh -2 sheet.geo -setnumber h 4   (h: element size)
SetFactory("OpenCASCADE");
DefineConstant[ h = {4, Name "Parameters/element size"} ];

Rectangle(1) = {0, 0, 0, 80, 40};
Disk(2) = {20, 20, 0, 4};
Disk(3) = {55, 20, 0, 4};
BooleanDifference(10) = {Surface{1}; Delete;}{Surface{2, 3}; Delete;};
Rectangle(11) = {0, 0, 0, 40, 40};
Rotate {{0, 1, 0}, {0, 0, 0}, -Pi / 2} { Surface{11}; }
Translate {80, 0, 0} { Surface{11}; }
BooleanFragments{Surface{10, 11}; Delete;}{}
Coherence;

e = 0.01;
Physical Curve("HOLE1") = {Curve In BoundingBox{16 - e, 16 - e, -e, 24 + e, 24 + e, e}};
Physical Curve("HOLE2") = {Curve In BoundingBox{51 - e, 16 - e, -e, 59 + e, 24 + e, e}};
Physical Surface("SHEET") = {Surface{:}};

Mesh.CharacteristicLengthMax = h;
Mesh.RecombineAll = 1;
Mesh.ElementOrder = 2;
Mesh.SecondOrderIncomplete = 1;
Mesh.SaveGroupsOfNodes = 1;
