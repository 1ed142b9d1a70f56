"""zelm export as a viewer meets it: VTK 9 and meshio read every file it writes."""
import math
import os
import subprocess

import meshio
import numpy as np
import pytest
import vtk
from vtk.util.numpy_support import vtk_to_numpy

import exportgrids as eg

ZELM = os.path.join(os.environ.get("ZELM_BINARY_DIR", "build/default"), "tools", "zelm")
EXAMPLES = os.path.join(os.environ.get("ZELM_SOURCE_DIR", "."), "examples")


def zelm(*args, check=0):
    p = subprocess.run([ZELM, *args], capture_output=True, text=True, timeout=300)
    if check is not None:
        assert p.returncode == check, (p.returncode, p.stdout, p.stderr)
    return p


def read(path):
    """The blocks VTK reads from a .vtu, .vtm or Tecplot file, and every message its readers gave."""
    vtk.vtkLogger.SetStderrVerbosity(vtk.vtkLogger.VERBOSITY_OFF)
    window = vtk.vtkStringOutputWindow()
    vtk.vtkOutputWindow.SetInstance(window)
    reader = (vtk.vtkXMLMultiBlockDataReader() if path.endswith(".vtm") else
              vtk.vtkXMLUnstructuredGridReader() if path.endswith(".vtu") else vtk.vtkTecplotReader())
    reader.SetFileName(path)
    reader.Update()
    out = reader.GetOutput()
    messages = window.GetOutput()
    vtk.vtkOutputWindow.SetInstance(None)
    if path.endswith(".vtu"):
        return [("", out)], messages
    names = [out.GetMetaData(i).Get(vtk.vtkCompositeDataSet.NAME()) for i in range(out.GetNumberOfBlocks())]
    return [(names[i], out.GetBlock(i)) for i in range(out.GetNumberOfBlocks())], messages


def sizes(block):
    """Sum of cell volumes, areas and lengths, by VTK's own cell size filter."""
    f = vtk.vtkCellSizeFilter()
    f.SetInputData(block)
    f.Update()
    cd = f.GetOutput().GetCellData()
    return {k: float(vtk_to_numpy(cd.GetArray(k)).sum()) for k in ("Volume", "Area", "Length")}


def types(block):
    return sorted(set(block.GetCellType(i) for i in range(block.GetNumberOfCells())))


def invalid_cells(block):
    """Cells vtkCellValidator finds wrong (wrong point count, twisted, faces turned inward ...)."""
    v = vtk.vtkCellValidator()
    v.SetInputData(block)
    window = vtk.vtkStringOutputWindow()  # the validator prints each invalid cell
    vtk.vtkOutputWindow.SetInstance(window)
    v.Update()
    vtk.vtkOutputWindow.SetInstance(None)
    state = vtk_to_numpy(v.GetOutput().GetCellData().GetArray("ValidityState"))
    return int((state != 0).sum())


def arrays(data):
    return [data.GetArrayName(i) for i in range(data.GetNumberOfArrays())]


# ---- each shape alone -------------------------------------------------------------------------------

@pytest.mark.parametrize("side", ["first", "second", "alternate"])
@pytest.mark.parametrize("name", sorted(eg.SHAPES))
def test_each_recognised_shape_alone(tmp_path, name, side):
    ndim, make, vtktype = eg.SHAPES[name]
    z, measure = make()
    grid = str(tmp_path / "g.txt")
    eg.write(grid, ndim, [z], side=side)
    out = zelm("--quiet", "export", grid, "-o", str(tmp_path / "g.vtu")).stdout
    assert "1 cells" in out and "left out" not in out
    blocks, messages = read(str(tmp_path / "g.vtu"))
    assert messages == ""
    block = blocks[0][1]
    assert (block.GetNumberOfPoints(), block.GetNumberOfCells()) == (len(z["points"]), 1)
    assert types(block) == [vtktype]
    assert invalid_cells(block) == 0
    assert sizes(block)["Volume" if ndim == 3 else "Area"] == pytest.approx(measure, rel=1e-6)
    m = meshio.read(str(tmp_path / "g.vtu"))
    assert sum(len(c.data) for c in m.cells) == 1 and len(m.points) == len(z["points"])
    # The Tecplot export of the same cell holds the same volume or area.
    zelm("--quiet", "export", grid, "-o", str(tmp_path / "g.dat"))
    blocks, messages = read(str(tmp_path / "g.dat"))
    assert messages == ""
    assert [b[0] for b in blocks] == ["zone 1", "boundary -1"]
    assert sizes(blocks[0][1])["Volume" if ndim == 3 else "Area"] == pytest.approx(measure, rel=1e-6)


# ---- general polyhedra ------------------------------------------------------------------------------

@pytest.mark.parametrize("enc", ["raw", "base64", "ascii"])
def test_a_cube_cut_into_general_polyhedra(tmp_path, enc):
    z, volume = eg.split_cube()
    grid = str(tmp_path / "cube.txt")
    eg.write(grid, 3, [z], side="alternate")
    flags = {"raw": [], "base64": ["--base64"], "ascii": ["--ascii"]}[enc]
    out = zelm("--quiet", "export", grid, "-o", str(tmp_path / "cube.vtu"), *flags).stdout
    assert "2 cells (2 polyhedra)" in out
    blocks, messages = read(str(tmp_path / "cube.vtu"))
    assert messages == ""
    block = blocks[0][1]
    assert types(block) == [vtk.VTK_POLYHEDRON]
    assert invalid_cells(block) == 0
    assert sizes(block)["Volume"] == pytest.approx(volume, rel=1e-9)
    m = meshio.read(str(tmp_path / "cube.vtu"))
    assert [c.type for c in m.cells] == ["polyhedron9"] and len(m.cells[0].data) == 2
    assert all(len(cell) == 9 for cell in m.cells[0].data)  # nine faces each
    blocks, messages = read(str(tmp_path / "cube.vtu").replace(".vtu", ".vtu"))
    zelm("--quiet", "export", grid, "-o", str(tmp_path / "cube.dat"))
    blocks, messages = read(str(tmp_path / "cube.dat"))
    assert messages == "" and blocks[0][1].GetNumberOfCells() == 2
    assert sizes(blocks[0][1])["Volume"] == pytest.approx(volume, rel=1e-6)
    assert sizes(blocks[1][1])["Area"] == pytest.approx(6.0, rel=1e-6)


# ---- the bundled samples ----------------------------------------------------------------------------

def flow(x, y, z):
    """The samples' flow (tools/gridgen.cpp): density, u, v, w, pressure, speed."""
    dx, dy = x - 0.5, y - 0.5
    swirl = math.exp(-(dx * dx + dy * dy) / 0.05)
    u, v, w = 1.0 - 2.0 * dy * swirl, 2.0 * dx * swirl, 0.1 * math.sin(3.14159265358979 * z)
    return [1.0 - 0.2 * swirl, u, v, w, 1.0 / 1.4 - 0.3 * swirl, math.sqrt(u * u + v * v + w * w)]


def cellflow(c, ncells):
    t = c / ncells
    return flow(t, 0.5 + 0.3 * math.sin(6.28318530718 * t), t)


@pytest.mark.parametrize("sample,zones,area", [("flow2d", 2, 0.75), ("flow3d", 1, 0.75)])
@pytest.mark.parametrize("suffix", [".vtm", ".dat"])
def test_the_bundled_samples(tmp_path, sample, zones, area, suffix):
    out = str(tmp_path / (sample + suffix))
    zelm("--quiet", "export", os.path.join(EXAMPLES, sample + "-grid.unf"), "--pix",
         os.path.join(EXAMPLES, sample + "-pix.unf"), "--restart", os.path.join(EXAMPLES, sample + "-restart.txt"),
         "-o", out)
    blocks, messages = read(out)
    assert messages == ""
    names = [b[0] for b in blocks]
    assert names == ["zone %d" % (k + 1) for k in range(zones)] + ["boundary -1"]
    ncells = 1536 if sample == "flow3d" else 576
    assert sum(b.GetNumberOfCells() for _, b in blocks[:-1]) == ncells
    fixed = ["density", "velocity_u", "velocity_v", "velocity_w", "pressure", "variable6", "speed"]
    for name, block in blocks:
        measure = sizes(block)
        if name.startswith("zone"):
            assert measure["Volume" if sample == "flow3d" else "Area"] == pytest.approx(area, rel=1e-5)
        assert arrays(block.GetPointData()) == fixed
        assert arrays(block.GetCellData()) == ["q1", "q2", "q3", "q4", "q5"]
        # Node values where the nodes are, cell values of the cells they belong to.
        points = vtk_to_numpy(block.GetPoints().GetData())
        for i in range(0, block.GetNumberOfPoints(), 37):
            x, y, z = points[i]
            expect = flow(math.fmod(x, 1.25), y, z)
            for k, a in enumerate(fixed[:6]):
                assert block.GetPointData().GetArray(a).GetValue(i) == pytest.approx(expect[k], abs=2e-6)
    if suffix == ".vtm":
        # Each zone's first cell carries the restart values of the file's cell with its number.
        first = 0
        for name, block in blocks[:-1]:
            assert block.GetCellData().GetArray("q1").GetValue(0) == pytest.approx(cellflow(first + 1, ncells)[0],
                                                                                    abs=1e-6)
            first += block.GetNumberOfCells()
        assert invalid_cells(blocks[0][1]) == 0
        fd = blocks[0][1].GetFieldData()
        assert fd.GetArray("cycle").GetValue(0) == 400
        assert fd.GetArray("time").GetValue(0) == pytest.approx(0.125)
        text = bytes(vtk_to_numpy(fd.GetArray("pix_text"))).decode().rstrip()
        assert text == "sample " + sample
        for piece in sorted(os.listdir(str(tmp_path / sample))):
            m = meshio.read(str(tmp_path / sample / piece))
            assert sorted(m.point_data) == sorted(fixed)
            assert len(m.points) == blocks[[b[0].replace(" ", "") + ".vtu" for b in blocks].index(piece)][1].GetNumberOfPoints()


def test_the_3d_sample_boundary_is_the_whole_surface(tmp_path):
    out = str(tmp_path / "s.vtm")
    zelm("--quiet", "export", os.path.join(EXAMPLES, "flow3d-grid.unf"), "-o", out)
    blocks, _ = read(out)
    boundary = blocks[-1][1]
    # A sheared unit box 1 x 1 x 0.75: its surface is close to 2 + 4 * 0.75 = 5.
    assert sizes(boundary)["Area"] == pytest.approx(5.0, rel=1e-3)
    assert types(boundary) == [vtk.VTK_TRIANGLE, vtk.VTK_QUAD]
    # Every boundary face points out of the domain: the surface's signed volume is the domain's.
    normals = vtk.vtkMassProperties()
    tri = vtk.vtkTriangleFilter()
    geo = vtk.vtkGeometryFilter()
    geo.SetInputData(boundary)
    tri.SetInputConnection(geo.GetOutputPort())
    normals.SetInputConnection(tri.GetOutputPort())
    normals.Update()
    assert normals.GetVolume() == pytest.approx(0.75, rel=1e-3)


# ---- numbering across zones, shared nodes -----------------------------------------------------------

def test_a_three_zone_grid_numbered_across_zones(tmp_path):
    zones = []
    for k in range(3):
        z, _ = eg.box_grid(2, 2, 2, x0=1.5 * k, code=lambda c, k=k: -(k + 1))
        zones.append(z)
    grid = str(tmp_path / "three.txt")
    eg.write(grid, 3, zones, across=True)
    out = zelm("--quiet", "export", grid, "-o", str(tmp_path / "three.vtm")).stdout
    assert "count across the grid" in out and "left out" not in out
    blocks, messages = read(str(tmp_path / "three.vtm"))
    assert messages == ""
    assert [b[0] for b in blocks] == ["zone 1", "zone 2", "zone 3", "boundary -1", "boundary -2", "boundary -3"]
    for name, block in blocks[:3]:
        assert (block.GetNumberOfPoints(), block.GetNumberOfCells()) == (27, 8)
        assert types(block) == [vtk.VTK_HEXAHEDRON] and invalid_cells(block) == 0
        assert sizes(block)["Volume"] == pytest.approx(1.0)
    for k, (name, block) in enumerate(blocks[3:]):
        assert (block.GetNumberOfPoints(), block.GetNumberOfCells()) == (26, 24)
        assert sizes(block)["Area"] == pytest.approx(6.0)
        assert block.GetBounds()[0] == pytest.approx(1.5 * k)
    zelm("--quiet", "export", grid, "-o", str(tmp_path / "three.dat"))
    blocks, messages = read(str(tmp_path / "three.dat"))
    assert messages == "" and len(blocks) == 6
    assert [sizes(b)["Volume"] for _, b in blocks[:3]] == pytest.approx([1.0, 1.0, 1.0])
    # The same zones numbered within each zone are found to be so, and give the same cells.
    eg.write(grid, 3, zones, across=False)
    out = zelm("--quiet", "export", grid, "-o", str(tmp_path / "within.vtm")).stdout
    assert "count within each zone" in out
    assert [b.GetNumberOfCells() for _, b in read(str(tmp_path / "within.vtm"))[0]] == [8, 8, 8, 24, 24, 24]


def test_a_tetrahedron_sharing_nodes_with_a_prism(tmp_path):
    z, volume = eg.prism_with_tet()
    grid = str(tmp_path / "pt.txt")
    eg.write(grid, 3, [z], side="alternate")
    zelm("--quiet", "export", grid, "-o", str(tmp_path / "pt.vtu"))
    blocks, messages = read(str(tmp_path / "pt.vtu"))
    block = blocks[0][1]
    assert messages == "" and (block.GetNumberOfPoints(), block.GetNumberOfCells()) == (7, 2)
    assert [block.GetCellType(i) for i in range(2)] == [vtk.VTK_WEDGE, vtk.VTK_TETRA]
    assert invalid_cells(block) == 0
    assert sizes(block)["Volume"] == pytest.approx(volume)
    m = meshio.read(str(tmp_path / "pt.vtu"))
    assert {c.type: len(c.data) for c in m.cells} == {"wedge": 1, "tetra": 1}
    assert all((c.data >= 0).all() and (c.data < 7).all() for c in m.cells)


# ---- damaged grids ----------------------------------------------------------------------------------

def damaged(tmp_path, change):
    z, _ = eg.box_grid(2, 2, 1)
    faces = eg.faces_of(z, "first")
    change(faces)
    grid = str(tmp_path / "bad.txt")
    eg.write(grid, 3, [z], faces=[faces])
    return grid


def test_an_open_cell_is_left_out_and_named(tmp_path):
    # Drop a boundary face of cell 1.
    grid = damaged(tmp_path, lambda faces: faces.pop(0))
    p = zelm("--quiet", "export", grid, "-o", str(tmp_path / "o.vtu"))
    assert "1 cell(s) left out" in p.stdout and "zone 1 cell 1 (" in p.stdout and "open" in p.stdout
    blocks, messages = read(str(tmp_path / "o.vtu"))
    assert messages == "" and blocks[0][1].GetNumberOfCells() == 3
    p = zelm("--quiet", "export", grid, "-o", str(tmp_path / "s.vtu"), "--strict", check=1)
    assert p.stderr.startswith("zelm: zone 1 cell 1 cannot be exported") and not (tmp_path / "s.vtu").exists()
    assert not [f for f in os.listdir(tmp_path) if f.startswith(".")]


def test_references_out_of_range_are_reported(tmp_path):
    def change(faces):
        nodes, c1, c2 = faces[0]
        faces[0] = ([99] + nodes[1:], c1, c2)  # a node that does not exist
        nodes, c1, c2 = faces[-1]
        faces[-1] = (nodes, 50, c2)  # a cell that does not exist
    grid = damaged(tmp_path, change)
    p = zelm("--quiet", "export", grid, "-o", str(tmp_path / "r.vtm"))
    assert "names a node that does not exist" in p.stdout
    assert "name a cell that does not exist (first: zone 1 face" in p.stdout
    assert "left out" in p.stdout
    blocks, messages = read(str(tmp_path / "r.vtm"))
    assert messages == ""
    assert blocks[0][1].GetNumberOfCells() == 2  # the cells of the two damaged faces are open or broken
    zelm("--quiet", "export", grid, "-o", str(tmp_path / "r2.vtm"), "--strict", check=1)


def test_a_grid_whose_counts_lie_is_refused_before_anything_is_written(tmp_path):
    grid = tmp_path / "lie.txt"
    z, _ = eg.box_grid(1, 1, 1)
    eg.write(str(grid), 3, [z])
    lines = grid.read_text().splitlines()
    counts = lines[1].split()
    counts[2] = "2000000000"  # two billion cells over six faces
    lines[1] = " ".join(counts)
    grid.write_text("\n".join(lines) + "\n")
    p = zelm("--quiet", "export", str(grid), "-o", str(tmp_path / "l.vtu"), check=1)
    assert "more than the 6 faces can bound" in p.stderr


# ---- the command ------------------------------------------------------------------------------------

def test_the_suffix_chooses_the_format_and_multi_zone_vtu_needs_a_zone(tmp_path):
    grid = os.path.join(EXAMPLES, "flow2d-grid.unf")
    p = zelm("export", grid, "-o", str(tmp_path / "x.vtk"), check=2)
    assert ".vtu, .vtm, .dat or .tec" in p.stderr
    p = zelm("export", grid, "-o", str(tmp_path / "x.vtu"), check=2)
    assert "--zone" in p.stderr
    zelm("--quiet", "export", grid, "-o", str(tmp_path / "x.vtu"), "--zone", "2")
    block = read(str(tmp_path / "x.vtu"))[0][0][1]
    assert types(block) == [vtk.VTK_TRIANGLE] and block.GetNumberOfCells() == 384
    zelm("--quiet", "export", grid, "-o", str(tmp_path / "x.tec"))
    assert len(read(str(tmp_path / "x.tec"))[0]) == 3


def test_the_faithful_export_warns_for_3d(tmp_path):
    p = zelm("--quiet", "export", os.path.join(EXAMPLES, "flow3d-grid.unf"), "-o", str(tmp_path / "f.dat"),
             "--faithful")
    assert "not well-formed Tecplot" in p.stderr
    assert "Tet-Zone" in (tmp_path / "f.dat").read_text()


def test_vtm_replaces_its_folder_only_with_force(tmp_path):
    grid = os.path.join(EXAMPLES, "flow3d-grid.unf")
    zelm("--quiet", "export", grid, "-o", str(tmp_path / "m.vtm"))
    p = zelm("--quiet", "export", grid, "-o", str(tmp_path / "m.vtm"), check=2)
    assert "--force" in p.stderr
    zelm("--quiet", "export", grid, "-o", str(tmp_path / "m.vtm"), "--force")
    assert sorted(os.listdir(tmp_path)) == ["m", "m.vtm"]
    assert sorted(os.listdir(tmp_path / "m")) == ["boundary-1.vtu", "zone1.vtu"]


def test_free_variable_labels_are_made_unique_and_safe(tmp_path):
    # A pix file whose free labels repeat a fixed name, a coordinate name and each other.
    z, _ = eg.box_grid(1, 1, 1)
    grid = str(tmp_path / "g.txt")
    eg.write(grid, 3, [z])
    lines = ["1.0 1.4 287.0", "1.2 0.5 101325.0", "%-25s" % "labels"]
    for v in range(6):
        lines.append(" ".join(str(v + 0.5) for _ in range(8)))
    labels = ["pressure", "X", "a/b (c)", "a/b (c)", ""]
    lines.append(str(len(labels)))
    lines += ["%-25s" % s for s in labels]
    for v in range(len(labels)):
        lines.append(" ".join(str(10 + v) for _ in range(8)))
    pixfile = tmp_path / "p.txt"
    pixfile.write_text("\n".join(lines) + "\n")
    zelm("--quiet", "export", grid, "--pix", str(pixfile), "-o", str(tmp_path / "l.vtu"))
    block = read(str(tmp_path / "l.vtu"))[0][0][1]
    names = arrays(block.GetPointData())
    assert names[6:] == ["pressure_2", "X_2", "a_b__c_", "a_b__c__2", "free5"]
    assert block.GetPointData().GetArray("a_b__c__2").GetValue(0) == 13
    zelm("--quiet", "export", grid, "--pix", str(pixfile), "-o", str(tmp_path / "l.dat"))
    blocks, messages = read(str(tmp_path / "l.dat"))
    assert messages == "" and arrays(blocks[0][1].GetPointData())[6:] == names[6:]
