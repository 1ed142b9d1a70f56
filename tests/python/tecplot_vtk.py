#!/usr/bin/python3
"""Reads a Tecplot ASCII file with VTK's vtkTecplotReader and prints what it found as JSON.

Usage: tecplot_vtk.py FILE

Output: {"variables": [...], "messages": "...", "zones": [{"name", "dataset", "points", "cells",
"arrays", "coords", "elements": [{"type", "corners", "measure"}]}]}. Corners are point numbers
from 1 within the zone; the measure is the element's area (triangle, quadrilateral) or volume
(tetrahedron, hexahedron), always taken as its absolute value.
"""
import json
import sys

import vtk

TYPES = {
    vtk.VTK_VERTEX: "vertex",
    vtk.VTK_LINE: "line",
    vtk.VTK_TRIANGLE: "triangle",
    vtk.VTK_QUAD: "quad",
    vtk.VTK_TETRA: "tetra",
    vtk.VTK_HEXAHEDRON: "hexahedron",
}


def sub(a, b):
    return (a[0] - b[0], a[1] - b[1], a[2] - b[2])


def cross(a, b):
    return (a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0])


def dot(a, b):
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]


def norm(a):
    return dot(a, a) ** 0.5


def hexvolume(p):
    # Divergence theorem over the six faces, each split into triangles around its centre; exact
    # for planar faces, and collapsed corners give empty triangles.
    faces = [(0, 3, 2, 1), (4, 5, 6, 7), (0, 1, 5, 4), (1, 2, 6, 5), (2, 3, 7, 6), (3, 0, 4, 7)]
    v = 0.0
    for f in faces:
        c = tuple(sum(p[i][d] for i in f) / 4.0 for d in range(3))
        for k in range(4):
            a, b = p[f[k]], p[f[(k + 1) % 4]]
            v += dot(c, cross(a, b)) / 6.0
    return abs(v)


def measure(kind, p):
    if kind == "triangle":
        return norm(cross(sub(p[1], p[0]), sub(p[2], p[0]))) / 2.0
    if kind == "quad":
        return norm(cross(sub(p[2], p[0]), sub(p[3], p[1]))) / 2.0
    if kind == "tetra":
        return abs(dot(sub(p[1], p[0]), cross(sub(p[2], p[0]), sub(p[3], p[0])))) / 6.0
    if kind == "hexahedron":
        return hexvolume(p)
    if kind == "line":
        return norm(sub(p[1], p[0]))
    return 0.0


def main():
    # Messages are collected for the report instead of going to standard error.
    vtk.vtkLogger.SetStderrVerbosity(vtk.vtkLogger.VERBOSITY_OFF)
    window = vtk.vtkStringOutputWindow()
    vtk.vtkOutputWindow.SetInstance(window)
    reader = vtk.vtkTecplotReader()
    reader.SetFileName(sys.argv[1])
    reader.Update()
    out = reader.GetOutput()
    result = {
        "variables": [reader.GetDataArrayName(i) for i in range(reader.GetNumberOfDataArrays())],
        "messages": window.GetOutput(),
        "zones": [],
    }
    for i in range(out.GetNumberOfBlocks() if out else 0):
        block = out.GetBlock(i)
        meta = out.GetMetaData(i) if out.HasMetaData(i) else None
        zone = {
            "name": meta.Get(vtk.vtkCompositeDataSet.NAME()) if meta else None,
            "dataset": block.GetClassName() if block else None,
            "points": block.GetNumberOfPoints() if block else 0,
            "cells": block.GetNumberOfCells() if block else 0,
            "arrays": [],
            "coords": [],
            "elements": [],
        }
        if block:
            pd = block.GetPointData()
            zone["arrays"] = [pd.GetArrayName(k) for k in range(pd.GetNumberOfArrays())]
            zone["coords"] = [list(block.GetPoint(k)) for k in range(block.GetNumberOfPoints())]
            for c in range(block.GetNumberOfCells()):
                cell = block.GetCell(c)
                kind = TYPES.get(cell.GetCellType(), cell.GetClassName())
                ids = [cell.GetPointId(k) for k in range(cell.GetNumberOfPoints())]
                pts = [block.GetPoint(k) for k in ids]
                zone["elements"].append(
                    {"type": kind, "corners": [k + 1 for k in ids], "measure": measure(kind, pts)}
                )
        result["zones"].append(zone)
    json.dump(result, sys.stdout)
    sys.stdout.write("\n")


if __name__ == "__main__":
    main()
