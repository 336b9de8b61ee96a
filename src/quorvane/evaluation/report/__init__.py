"""An evaluation as one page: what it shows, how that is drawn, and the page around it."""

from quorvane.evaluation.report.page import write_page
from quorvane.evaluation.report.sheet import draw_sheet
from quorvane.evaluation.report.structures import (
    StructureFigures,
    figures_of,
    structure_figures,
)

__all__ = ["StructureFigures", "draw_sheet", "figures_of", "structure_figures", "write_page"]
