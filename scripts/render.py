#!/usr/bin/python3
"""Renders Tecplot ASCII files off-screen to a PNG with VTK's own Tecplot reader.

usage: render.py OUT.png FILE.dat [FILE.dat ...] [--field NAME]

Every zone of every file is drawn, coloured by NAME (default: the speed |(U, V, W)|),
seen from above for 2D data and from an oblique angle for 3D data. Body-surface zones are
skipped: they repeat boundary nodes as points.
"""
import sys

import vtk


def savepng(window, out):
    """Writes what the render window shows to a PNG file."""
    image = vtk.vtkWindowToImageFilter()
    image.SetInput(window)
    image.Update()
    writer = vtk.vtkPNGWriter()
    writer.SetFileName(out)
    writer.SetInputConnection(image.GetOutputPort())
    writer.Write()


def main(argv):
    field = None
    if "--field" in argv:
        i = argv.index("--field")
        field = argv[i + 1]
        del argv[i:i + 2]
    if len(argv) < 2:
        sys.exit(__doc__)
    out, files = argv[0], argv[1:]

    append = vtk.vtkAppendFilter()
    three_d = False
    for name in files:
        reader = vtk.vtkTecplotReader()
        reader.SetFileName(name)
        reader.Update()
        data = reader.GetOutput()
        for b in range(data.GetNumberOfBlocks()):
            block = data.GetBlock(b)
            title = data.GetMetaData(b).Get(vtk.vtkCompositeDataSet.NAME()) or ""
            if block is None or block.GetNumberOfCells() == 0 or title.startswith("Body"):
                continue
            if block.GetNumberOfPoints() and block.GetBounds()[5] > block.GetBounds()[4]:
                three_d = True
            append.AddInputData(block)
    append.Update()
    grid = append.GetOutput()
    if grid.GetNumberOfCells() == 0:
        sys.exit("render.py: no cells to draw in " + " ".join(files))

    points = grid.GetPointData()
    if field is None:
        calc = vtk.vtkArrayCalculator()
        calc.SetInputData(grid)
        for v in ("U", "V", "W"):
            calc.AddScalarVariable(v, v)
        calc.SetFunction("sqrt(U*U+V*V+W*W)")
        calc.SetResultArrayName("speed")
        calc.Update()
        grid = calc.GetOutput()
        field = "speed"
    values = grid.GetPointData().GetArray(field)
    if values is None:
        sys.exit("render.py: no variable %r in %s" % (field, " ".join(files)))

    surface = vtk.vtkDataSetSurfaceFilter()
    surface.SetInputData(grid)
    mapper = vtk.vtkDataSetMapper()
    mapper.SetInputConnection(surface.GetOutputPort())
    mapper.SetScalarModeToUsePointFieldData()
    mapper.SelectColorArray(field)
    mapper.SetScalarRange(values.GetRange())
    lut = vtk.vtkLookupTable()
    lut.SetHueRange(0.667, 0.0)
    lut.Build()
    mapper.SetLookupTable(lut)
    actor = vtk.vtkActor()
    actor.SetMapper(mapper)
    actor.GetProperty().EdgeVisibilityOn()
    actor.GetProperty().SetEdgeColor(0.2, 0.2, 0.2)

    bar = vtk.vtkScalarBarActor()
    bar.SetLookupTable(lut)
    bar.SetTitle(field)
    bar.SetNumberOfLabels(5)
    for text in (bar.GetTitleTextProperty(), bar.GetLabelTextProperty()):
        text.SetColor(0, 0, 0)
        text.ShadowOff()
        text.ItalicOff()

    renderer = vtk.vtkRenderer()
    renderer.AddActor(actor)
    renderer.AddActor2D(bar)
    renderer.SetBackground(1, 1, 1)
    window = vtk.vtkRenderWindow()
    window.SetOffScreenRendering(1)
    window.AddRenderer(renderer)
    window.SetSize(1000, 700)
    camera = renderer.GetActiveCamera()
    if three_d:
        camera.Azimuth(35)
        camera.Elevation(30)
    renderer.ResetCamera()
    window.Render()

    savepng(window, out)
    print("rendered %s (%d cells, coloured by %s)" % (out, grid.GetNumberOfCells(), field))


if __name__ == "__main__":
    main(sys.argv[1:])
