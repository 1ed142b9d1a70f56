#!/usr/bin/python3
"""Draws a 3D .vtm export off-screen to a PNG with VTK's own XML reader.

usage: render3d.py OUT.png FILE.vtm [--field NAME]

Left: the boundary patches; right: the grid zones cut open at the middle of y, showing their cells.
Both are coloured by NAME (default "pressure", the fifth fixed pix variable), with one colour bar and
a title naming the file.
"""
import os
import sys

import vtk

from render import savepng


def main(argv):
    field = "pressure"
    if "--field" in argv:
        i = argv.index("--field")
        field = argv[i + 1]
        del argv[i:i + 2]
    if len(argv) != 2:
        sys.exit(__doc__)
    out, name = argv
    reader = vtk.vtkXMLMultiBlockDataReader()
    reader.SetFileName(name)
    reader.Update()
    data = reader.GetOutput()
    zones, patches = vtk.vtkAppendFilter(), vtk.vtkAppendFilter()
    for b in range(data.GetNumberOfBlocks()):
        title = data.GetMetaData(b).Get(vtk.vtkCompositeDataSet.NAME()) or ""
        (patches if title.startswith("boundary") else zones).AddInputData(data.GetBlock(b))
    zones.Update()
    patches.Update()
    if zones.GetOutput().GetPointData().GetArray(field) is None:
        sys.exit("render3d.py: no point array %r in %s" % (field, name))
    low, high = zones.GetOutput().GetPointData().GetArray(field).GetRange()

    lut = vtk.vtkLookupTable()
    lut.SetHueRange(0.667, 0.0)
    lut.SetTableRange(low, high)
    lut.Build()

    def actor(source):
        mapper = vtk.vtkDataSetMapper()
        mapper.SetInputConnection(source.GetOutputPort())
        mapper.SetScalarModeToUsePointFieldData()
        mapper.SelectColorArray(field)
        mapper.SetLookupTable(lut)
        mapper.SetScalarRange(low, high)
        a = vtk.vtkActor()
        a.SetMapper(mapper)
        a.GetProperty().EdgeVisibilityOn()
        a.GetProperty().SetEdgeColor(0.15, 0.15, 0.15)
        return a

    boundary = vtk.vtkDataSetSurfaceFilter()
    boundary.SetInputConnection(patches.GetOutputPort())
    bounds = zones.GetOutput().GetBounds()
    plane = vtk.vtkPlane()
    plane.SetOrigin(0, (bounds[2] + bounds[3]) / 2, 0)
    plane.SetNormal(0, 1, 0)
    clip = vtk.vtkExtractGeometry()  # whole cells on one side: the cut shows them as they are
    clip.SetInputConnection(zones.GetOutputPort())
    clip.SetImplicitFunction(plane)
    clip.ExtractInsideOff()
    clip.ExtractBoundaryCellsOn()
    cut = vtk.vtkDataSetSurfaceFilter()
    cut.SetInputConnection(clip.GetOutputPort())

    window = vtk.vtkRenderWindow()
    window.SetOffScreenRendering(1)
    window.SetSize(1400, 700)
    for i, (source, label) in enumerate(((boundary, "boundary patches"), (cut, "cells, cut open at mid y"))):
        renderer = vtk.vtkRenderer()
        renderer.SetViewport(0.45 * i, 0, 0.45 * i + 0.45, 0.9)
        renderer.SetBackground(1, 1, 1)
        renderer.AddActor(actor(source))
        text = vtk.vtkTextActor()
        text.SetInput(label)
        text.GetTextProperty().SetColor(0, 0, 0)
        text.GetTextProperty().SetFontSize(18)
        text.SetPosition(20, 20)
        renderer.AddActor2D(text)
        # z up, seen from the low-y side, where the cut shows its cells
        centre = [(bounds[2 * d] + bounds[2 * d + 1]) / 2 for d in range(3)]
        camera = renderer.GetActiveCamera()
        camera.SetFocalPoint(*centre)
        camera.SetPosition(centre[0] - 1.0, centre[1] - 2.2, centre[2] + 1.6)
        camera.SetViewUp(0, 0, 1)
        renderer.ResetCamera()
        window.AddRenderer(renderer)
    top = vtk.vtkRenderer()
    top.SetViewport(0, 0.9, 1, 1)
    top.SetBackground(1, 1, 1)
    title = vtk.vtkTextActor()
    title.SetInput("%s coloured by %s" % (os.path.basename(name), field))
    title.GetTextProperty().SetColor(0, 0, 0)
    title.GetTextProperty().SetFontSize(24)
    title.GetTextProperty().BoldOn()
    title.SetPosition(20, 15)
    top.AddActor2D(title)
    window.AddRenderer(top)
    bar = vtk.vtkScalarBarActor()
    bar.SetLookupTable(lut)
    bar.SetTitle(field)
    bar.SetNumberOfLabels(5)
    bar.SetPosition(0.1, 0.1)
    bar.SetWidth(0.6)
    bar.SetHeight(0.8)
    for t in (bar.GetTitleTextProperty(), bar.GetLabelTextProperty()):
        t.SetColor(0, 0, 0)
        t.ShadowOff()
        t.ItalicOff()
    side = vtk.vtkRenderer()
    side.SetViewport(0.9, 0, 1, 0.9)
    side.SetBackground(1, 1, 1)
    side.AddActor2D(bar)
    window.AddRenderer(side)
    window.Render()

    savepng(window, out)
    print("rendered %s (%d cells, %d boundary faces, coloured by %s)" %
          (out, zones.GetOutput().GetNumberOfCells(), patches.GetOutput().GetNumberOfCells(), field))


if __name__ == "__main__":
    main(sys.argv[1:])
