"""The picture of a replay: the charts of its report on one sheet."""

from __future__ import annotations

import io
from collections.abc import Mapping
from pathlib import Path
from typing import Any

from quorvane.cli.libraries import require_library
from quorvane.evaluation import Evaluation
from quorvane.evaluation.report import StructureFigures, draw_sheet
from quorvane.evaluation.report.drawing import style


def draw_picture(
    path: Path,
    evaluation: Evaluation,
    structures: StructureFigures | None,
    title: str,
    subtitle: str,
    groups: Mapping[Any, Any] | None = None,
) -> None:
    """Draw the picture as PNG, PDF or SVG, by the file's ending; the same run, the same bytes."""
    require_library("matplotlib", "drawing a picture")
    ending = path.suffix.lower()
    # Drawn in memory first: on a full disk some formats fail while they clean up.
    drawn = io.BytesIO()
    metadata = {".png": {"Software": None}, ".pdf": {"CreationDate": None}}.get(
        ending, {"Date": None}
    )
    with style("picture"):
        figure = draw_sheet(evaluation, structures, title, subtitle, groups)
        figure.savefig(drawn, format=ending[1:], dpi=150, metadata=metadata)
    path.write_bytes(drawn.getvalue())
