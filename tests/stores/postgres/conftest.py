"""A store in a database of its own, and a way behind its back."""

import pytest

from quorvane.stores import PostgresStore


@pytest.fixture
def dsn(postgres, database):
    return postgres.dsn(database)


@pytest.fixture
def store(dsn):
    return PostgresStore(dsn)


@pytest.fixture
def sql(postgres, database):
    """Run a statement on the database behind the store's back."""

    def sql(statement, *values):
        return postgres.sql(statement, *values, database=database)

    return sql
